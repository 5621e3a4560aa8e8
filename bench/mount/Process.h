#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <sys/types.h>

namespace Bench {

// What went wrong, in words. Ends the measurement, and the program with a code that is not 0.
class Failure : public std::runtime_error {
public:
    using runtime_error::runtime_error;
};

using Nanoseconds = std::uint64_t;
constexpr Nanoseconds microsecond = 1000, millisecond = 1000 * microsecond, second = 1000 * millisecond;

Nanoseconds now();                // of the one clock that all processes of the machine share
void sleepUntil(Nanoseconds at);  // of that clock
Nanoseconds cpuTime();            // that this process has used
Nanoseconds cpuTime(pid_t of);
std::size_t residentBytes();  // of this process

// Until when a wait may last.
class Deadline {
public:
    explicit Deadline(Nanoseconds time) : at_(now() + time) {}

    Nanoseconds left() const {
        Nanoseconds const t = now();
        return t < at_ ? at_ - t : 0;
    }
    void check(std::string const& what) const {
        if (!left()) throw Failure("waited in vain: " + what);
    }
    // Asks once in a while.
    void await(std::string const& what, std::function<bool()> const& done) const;

private:
    Nanoseconds at_;
};

// Values that a process shares with those that it forks from then on. Zero at first.
template <class T> class Shared {
public:
    explicit Shared(std::size_t count = 1) : bytes_(count * sizeof(T)) {
        void* const memory = mmap(nullptr, bytes_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) throw Failure("no shared memory");
        values_ = static_cast<T*>(memory);
        for (std::size_t i = 0; i < count; ++i) new (values_ + i) T();
    }
    Shared(Shared const&) = delete;
    Shared& operator=(Shared const&) = delete;
    ~Shared() { munmap(values_, bytes_); }

    T* operator->() const { return values_; }
    T& operator[](std::size_t i) const { return values_[i]; }

private:
    std::size_t bytes_;
    T* values_;
};

// The processes of one measurement. They go when this one does, however it ends.
class Family {
public:
    explicit Family(Nanoseconds time) : deadline_(time) {}
    Family(Family const&) = delete;
    Family& operator=(Family const&) = delete;
    ~Family();  // kills those that are left

    Deadline const& deadline() const { return deadline_; }
    // Forks a process that does this. What it throws is thrown by wait().
    pid_t start(std::string const& name, std::function<void()> const& role);
    // Until all have ended.
    void wait();

private:
    static constexpr std::size_t maximum = 32;
    struct Child {
        std::string name;
        pid_t pid;
        char const* error;  // what it threw, once it has ended
    };

    Deadline deadline_;
    std::vector<Child> children_;
    std::size_t started_ = 0;
    Shared<std::array<char, 512>> errors_{maximum};
};

// Starts another program that is killed when this process ends. What it prints is dropped.
class Program {
public:
    explicit Program(std::vector<std::string> const& command);
    Program(Program const&) = delete;
    Program& operator=(Program const&) = delete;
    ~Program();

    pid_t pid() const { return pid_; }
    bool hasEnded();

private:
    pid_t pid_;
};

bool isInstalled(std::string const& program);  // found in $PATH

// A directory for sockets; removed in the end.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    TemporaryDirectory(TemporaryDirectory const&) = delete;
    TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;
    ~TemporaryDirectory();

    std::string const& path() const { return path_; }

private:
    std::string path_;
};

}  // namespace Bench
