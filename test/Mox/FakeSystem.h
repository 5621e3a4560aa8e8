#pragma once

#include "Vel/base/System.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <fcntl.h>

// The world outside the process as a test wants it, in force while the object lives: an environment, files, a clock.
// Every call is recorded; what no correct program does (reading a closed file, leaving one open) fails the test.
class FakeSystem : public Vel::SystemCalls {
public:
    struct File {
        std::string content;
        int openError = 0;      // errno of every open; 0: it can be opened
        int readError = 0;      // errno of every read; 0: it can be read
        int interruptions = 0;  // reads that fail with EINTR before one gets through
    };

    FakeSystem() : before_(Vel::System::callsIs(this)) {}
    FakeSystem(FakeSystem const&) = delete;
    FakeSystem& operator=(FakeSystem const&) = delete;
    ~FakeSystem() override {
        Vel::System::callsIs(before_);
        EXPECT_EQ(openFiles(), std::vector<std::string>()) << "left open";
    }

    std::map<std::string, std::string> environment;
    std::map<std::string, File> files;  // others do not exist (ENOENT)
    double time = 1700000000.125;
    pid_t processId = 4711;

    // The calls since the last time this was asked, such as "getenv CELLID", "open /etc/cellid", "read /etc/cellid 32",
    // "close /etc/cellid". Not what tracing asks of the environment.
    std::vector<std::string> takeCalls() { return std::exchange(calls_, {}); }
    std::vector<std::string> openFiles() const {
        std::vector<std::string> paths;
        for (auto const& open : opened_)
            if (open.isOpen) paths.push_back(open.path);
        return paths;
    }

    char const* getenv(char const* name) override {
        if (!std::string(name).starts_with("VELTRACE")) calls_.push_back("getenv " + std::string(name));
        auto const found = environment.find(name);
        return found == environment.end() ? nullptr : found->second.c_str();
    }

    int open(char const* path, int flags) override {
        calls_.push_back("open " + std::string(path));
        EXPECT_EQ(flags & ~O_CLOEXEC, O_RDONLY) << path;
        auto const found = files.find(path);
        errno = found == files.end() ? ENOENT : found->second.openError;
        if (errno != 0) return -1;
        opened_.push_back({path, 0, true});
        return firstFile + static_cast<int>(opened_.size()) - 1;
    }

    ssize_t read(int file, void* buffer, std::size_t size) override {
        Opened* const open = find(file);
        if (!open) return -1;
        calls_.push_back("read " + open->path + " " + std::to_string(size));
        File& source = files[open->path];
        errno = source.interruptions > 0 ? EINTR : source.readError;
        if (source.interruptions > 0) --source.interruptions;
        if (errno != 0) return -1;
        std::size_t const count = std::min(size, source.content.size() - open->position);
        std::memcpy(buffer, source.content.data() + open->position, count);
        open->position += count;
        return static_cast<ssize_t>(count);
    }

    int close(int file) override {
        Opened* const open = find(file);
        if (!open) return -1;
        calls_.push_back("close " + open->path);
        open->isOpen = false;
        errno = EDOM;  // a call that succeeds may leave anything here
        return 0;
    }

    pid_t getpid() override { return processId; }
    double currentTime() override { return time; }

private:
    struct Opened {
        std::string path;
        std::size_t position;  // in bytes
        bool isOpen;
    };
    static constexpr int firstFile = 1000;

    Opened* find(int file) {
        auto const index = static_cast<std::size_t>(file - firstFile);
        if (file >= firstFile && index < opened_.size() && opened_[index].isOpen) return &opened_[index];
        ADD_FAILURE() << "file " << file << " is not open";
        errno = EBADF;
        return nullptr;
    }

    Vel::SystemCalls* before_;
    std::vector<std::string> calls_;
    std::vector<Opened> opened_;
};
