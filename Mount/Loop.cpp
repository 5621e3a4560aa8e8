#include "Mount/Loop.h"

#include "Vel/base/Exception.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/signal_set.hpp>

namespace Mount {

class Loop::Signal {
public:
    Signal(asio::io_context& context, int signal, std::function<void()> call) : set_(context), call_(std::move(call)) {
        std::error_code error;
        set_.add(signal, error);
        if (error) throw Vel::ErrnoException(error.value(), "signal " + Vel::String(std::to_string(signal)));
        wait();
    }

private:
    void wait() {
        set_.async_wait([this](std::error_code const& error, int) {
            if (error) return;  // the loop is gone
            wait();
            call_();
        });
    }

    asio::signal_set set_;
    std::function<void()> call_;
};

// No concurrency hint of 1: with it Asio withholds what a handler posts until the handler returns, so a nested run()
// would hang or stop the loop.
Loop::Loop() : own_(std::make_unique<asio::io_context>()), context_(own_.get()) {}
Loop::Loop(asio::io_context& context) : context_(&context) {}
Loop::~Loop() = default;

void Loop::run() {
    context_->restart();
    context_->run();
}

void Loop::poll() {
    context_->restart();
    context_->poll();
}

bool Loop::runFor(Duration time) {
    context_->restart();
    auto const work = asio::make_work_guard(*context_);
    context_->run_for(time);
    return !context_->stopped();
}

bool Loop::runUntil(std::function<bool()> const& done, Duration time) {
    auto const deadline = std::chrono::steady_clock::now() + time;
    context_->restart();
    auto const work = asio::make_work_guard(*context_);
    while (!done())
        if (context_->run_one_until(deadline) == 0) return done();
    return true;
}

void Loop::stop() { context_->stop(); }

void Loop::post(std::function<void()> call) { asio::post(*context_, std::move(call)); }

void Loop::onSignal(int signal, std::function<void()> call) {
    signals_.push_back(std::make_unique<Signal>(*context_, signal, std::move(call)));
}

}  // namespace Mount
