#include "Mount/Loop.h"

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>

namespace Mount {

Loop::Loop() : own_(std::make_unique<asio::io_context>(1)), context_(own_.get()) {}
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

}  // namespace Mount
