#include "Mount/Answer.h"

namespace Mount {

Answer::Answer(Loop& loop) : loop_(loop), state_(std::make_shared<State>()) {
    state_->answer.text = "no answer has come yet";
}

Vel::WriteTold Answer::told() {
    return [state = state_](Vel::WriteAnswer const& answer) {
        state->answer = answer;
        state->isThere = true;
    };
}

bool Answer::isThere() const { return state_->isThere; }
Vel::WriteAnswer const& Answer::answer() const { return state_->answer; }

Vel::WriteAnswer const& Answer::wait(Loop::Duration time) {
    loop_.runUntil([this] { return state_->isThere; }, time);
    return state_->answer;
}

}  // namespace Mount
