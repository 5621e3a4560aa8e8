#pragma once

#include "tools/lib/Input.h"

#include <chrono>
#include <cstdint>

namespace Tool {

// Shows how much of the input was read, in one line on standard error that overwrites itself. It is shown only on a
// terminal, only after the first second, and not if the input is typed at a terminal.
class Progress {
public:
    // mayMixWithAnswers: answers are printed meanwhile; then nothing is shown if they also go to a terminal.
    Progress(Input const& input, bool mayMixWithAnswers);
    Progress(Progress const&) = delete;
    Progress& operator=(Progress const&) = delete;
    ~Progress() { clear(); }

    void tell(LineReader const& lines);
    void clear();  // to be called before anything else is written to standard error

private:
    using Clock = std::chrono::steady_clock;

    bool wanted_;
    bool isShown_ = false;
    std::uint64_t size_ = 0;  // bytes; 0 if it is unknown
    Clock::time_point next_;
};

}  // namespace Tool
