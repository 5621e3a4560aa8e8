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

// What servers and clients wait in. An application that has an asio::io_context lends it and runs it as before; any
// other has one here, and calls run() or, out of a loop of its own, poll().
// Threads: the one that runs it uses the entities, too; post() and stop() may come from any.
class VEL_API Loop {
public:
    using Duration = std::chrono::nanoseconds;

    Loop();
    explicit Loop(asio::io_context& context);  // which must outlive this, and be run by one thread only; to be run from
                                               // within its handlers it is made without a concurrency hint
    Loop(Loop const&) = delete;
    Loop& operator=(Loop const&) = delete;
    ~Loop();

    void run();                        // until stop(), or until nothing is left to wait for
    void poll();                       // what can be done without waiting
    bool runFor(Duration time);        // whatever comes up in that time; false when stopped before
    void stop();                       // the next run goes on
    void post(std::function<void()>);  // calls it out of the loop
    // Calls it out of the loop whenever the process gets the signal: onSignal(SIGTERM, [&] { loop.stop(); }). Throws
    // ErrnoException for a signal that can't be caught. REQUIRES: nobody else handles it.
    void onSignal(int signal, std::function<void()> call);
    // Runs until done() is true, which is asked after everything that happens; false when the time was over before.
    bool runUntil(std::function<bool()> const& done, Duration time);

    asio::io_context& context() { return *context_; }

private:
    class Signal;

    std::unique_ptr<asio::io_context> own_;
    asio::io_context* context_;
    std::vector<std::unique_ptr<Signal>> signals_;
};

}  // namespace Mount
