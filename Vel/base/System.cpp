#include "Vel/base/System.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <pthread.h>
#include <sys/auxv.h>
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

namespace Vel {

char const* SystemCalls::getenv(char const* name) { return std::getenv(name); }
int SystemCalls::open(char const* path, int flags) { return ::open(path, flags | O_CLOEXEC); }
ssize_t SystemCalls::read(int file, void* buffer, std::size_t size) { return ::read(file, buffer, size); }
int SystemCalls::close(int file) { return ::close(file); }

namespace {

std::atomic<pid_t> cachedPid = 0;  // 0 if the kernel was not asked yet

}  // namespace

// Asks the kernel once in each process, since a system call is slow. A forked child asks again.
pid_t SystemCalls::getpid() {
    pid_t pid = cachedPid.load(std::memory_order_relaxed);
    if (pid == 0) [[unlikely]] {
        static bool const registered = ::pthread_atfork(nullptr, nullptr, [] { cachedPid = 0; }) == 0;
        pid = ::getpid();
        if (registered) cachedPid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

double SystemCalls::currentTime() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

std::int64_t SystemCalls::currentSeconds() { return static_cast<std::int64_t>(currentTime()); }

// Never blocks. Early while a machine starts, or where a filter forbids getrandom(), it uses the 16 random bytes that
// the kernel gives each program.
void SystemCalls::random(void* to, std::size_t size) noexcept {
    auto* at = static_cast<char*>(to);
    char* const end = at + size;
    while (at != end) {
        ssize_t const got = ::getrandom(at, static_cast<std::size_t>(end - at), GRND_NONBLOCK);
        if (got > 0)
            at += got;
        else if (got == 0 || errno != EINTR)
            break;
    }
    auto const* const given = reinterpret_cast<char const*>(::getauxval(AT_RANDOM));
    for (std::size_t i = 0; at != end; ++at, ++i) *at = given[i % 16];
}

SystemCalls::~SystemCalls() = default;

namespace {

class RealSystemCalls final : public SystemCalls {
public:
    constexpr RealSystemCalls() = default;

    // By time(), which reads the seconds of CLOCK_REALTIME_COARSE, and need not wait while the kernel changes them.
    std::int64_t currentSeconds() override { return ::time(nullptr); }
};

constinit RealSystemCalls realSystemCalls;

}  // namespace

constinit SystemCalls* System::calls_ = &realSystemCalls;

SystemCalls* System::callsIs(SystemCalls* calls) noexcept {
    SystemCalls* const before = calls_;
    calls_ = calls ? calls : &realSystemCalls;
    return before == &realSystemCalls ? nullptr : before;
}

}  // namespace Vel
