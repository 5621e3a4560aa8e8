#pragma once

#include "Vel/base/Types.h"

#include <cstddef>

#include <sys/types.h>

namespace Vel {

// The calls by which the framework and the libraries on it learn about the world outside the process. They all go
// through one replaceable object, so that a test or a tool can give any answer (an error, a short file, a clock that
// goes back) without touching the real environment. The defaults call the C library.
//
// The signatures and error conventions are POSIX's: open, read and close return -1 and set errno.
class VEL_API SystemCalls {
public:
    virtual char const* getenv(char const* name);  // null when unset
    virtual int open(char const* path, int flags);
    virtual ssize_t read(int file, void* buffer, std::size_t size);
    virtual int close(int file);
    virtual pid_t getpid();        // fork() is noticed; a raw clone(2) that skips its handlers is not
    virtual double currentTime();  // seconds since 1970-01-01 00:00 UTC
    virtual void random(void* to, std::size_t size) noexcept;  // bytes that nobody outside the process can foretell
    virtual ~SystemCalls();

protected:
    SystemCalls() = default;
    SystemCalls(SystemCalls const&) = default;
    SystemCalls& operator=(SystemCalls const&) = default;
};

class VEL_API System {
public:
    static SystemCalls& calls() noexcept { return *calls_; }
    // Puts `calls` (null: the real ones) in force and returns the object that was. The caller keeps ownership.
    // Switch only while no other thread makes calls.
    static SystemCalls* callsIs(SystemCalls* calls) noexcept;

    static double currentTime() { return calls_->currentTime(); }  // seconds since 1970-01-01 00:00 UTC

private:
    static SystemCalls* calls_;
};

}  // namespace Vel
