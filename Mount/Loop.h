#pragma once

#include "Vel/base/Types.h"

#include <chrono>
#include <functional>
#include <memory>
#include <vector>

namespace asio {
class io_context;
}

namespace Mount {

// The event loop in which servers and clients wait. An application that has an asio::io_context passes it here and runs
// it as before. Any other application uses the loop's own context, and calls run(), or poll() from a loop of its own.
// Threads: one thread runs the loop and uses the entities; post() and stop() may be called from any thread.
class VEL_API Loop {
public:
    using Duration = std::chrono::nanoseconds;

    Loop();
    // REQUIRES: `context` outlives the loop, and only one thread runs it. If a handler runs the loop (as sync() and
    // runUntil() do), `context` must have been made without a concurrency hint.
    explicit Loop(asio::io_context& context);
    Loop(Loop const&) = delete;
    Loop& operator=(Loop const&) = delete;
    ~Loop();

    void run();                        // until stop(), or until nothing is left to wait for
    void poll();                       // runs the handlers that are ready, without waiting
    bool runFor(Duration time);        // runs for `time`; returns false if stop() ended it before
    void stop();                       // ends the current run; the loop can be run again
    void post(std::function<void()>);  // the loop calls the function when it runs next
    // The loop calls `call` whenever the process gets the signal: onSignal(SIGTERM, [&] { loop.stop(); }). Throws
    // ErrnoException for a signal that can't be caught. REQUIRES: nobody else handles the signal.
    void onSignal(int signal, std::function<void()> call);
    // Runs until done() is true. Calls done() before the first handler and after each. Returns false if `time` is over
    // before, or if stop() ended the run.
    bool runUntil(std::function<bool()> const& done, Duration time);

    asio::io_context& context() { return *context_; }

private:
    class Signal;

    std::unique_ptr<asio::io_context> own_;
    asio::io_context* context_;
    std::vector<std::unique_ptr<Signal>> signals_;
};

}  // namespace Mount
