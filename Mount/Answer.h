#pragma once

#include "Mount/Loop.h"

#include "Vel/stream/StreamWrite.h"

#include <memory>

namespace Mount {

// Waits for the answer to a change:
//
//     Mount::Answer answer(loop);
//     client.replica().write(entity, attribute, value, answer.told());
//     if (!answer.wait(std::chrono::seconds(1)).hasChanged()) ...
//
// Threads: the one that runs the loop.
class VEL_API Answer {
public:
    explicit Answer(Loop& loop);

    Vel::WriteTold told();  // to be passed to one change. It may be called after this has been destroyed
    bool isThere() const;   // the answer has come, or the connection has ended
    Vel::WriteAnswer const& answer() const;  // `unknown` as long as it is not there
    // Runs the loop until the answer is there, but not longer than `time`. If it is not there then, the result is
    // `unknown`, and it may still come.
    Vel::WriteAnswer const& wait(Loop::Duration time);

private:
    struct State {
        Vel::WriteAnswer answer;
        bool isThere = false;
    };
    Loop& loop_;
    std::shared_ptr<State> state_;
};

}  // namespace Mount
