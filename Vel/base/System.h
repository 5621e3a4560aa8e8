#pragma once

#include "Vel/base/Types.h"

#include <cstddef>
#include <cstdint>

#include <sys/types.h>

namespace Vel {

// The system calls by which the framework and the libraries on it ask about the world outside the process. They all go
// through one object that can be replaced, so that a test or a tool can give any answer (an error, a short file, a
// clock that goes back) without a change of the real environment. The default functions call the C library.
//
// The signatures and error conventions are POSIX's: open, read and close return -1 and set errno.
class VEL_API SystemCalls {
public:
    virtual char const* getenv(char const* name);  // null if it is not set
    virtual int open(char const* path, int flags);
    virtual ssize_t read(int file, void* buffer, std::size_t size);
    virtual int close(int file);
    virtual pid_t getpid();        // cached; wrong after a raw clone(2), which skips the handlers of fork()
    virtual double currentTime();  // seconds since 1970-01-01 00:00 UTC
    virtual void random(void* to, std::size_t size) noexcept;  // bytes that nobody outside the process can predict
    virtual ~SystemCalls();
    // Whole seconds since 1970-01-01 00:00 UTC: by default those of currentTime(), so that a replaced clock holds for
    // both. The real one reads the clock that the kernel sets at each tick, in a tenth of the time. That clock is late
    // by up to one tick, 1 to 10 ms, so a new second begins that much later than by currentTime().
    virtual std::int64_t currentSeconds();

protected:
    SystemCalls() = default;
    SystemCalls(SystemCalls const&) = default;
    SystemCalls& operator=(SystemCalls const&) = default;
};

class VEL_API System {
public:
    static SystemCalls& calls() noexcept { return *calls_; }
    // Replaces the object by `calls`, or by the real one if that is null. Returns the object before, or null if it was
    // the real one. The caller keeps ownership. REQUIRES: no other thread makes calls meanwhile.
    static SystemCalls* callsIs(SystemCalls* calls) noexcept;

    static double currentTime() { return calls_->currentTime(); }  // seconds since 1970-01-01 00:00 UTC

private:
    static SystemCalls* calls_;
};

}  // namespace Vel
