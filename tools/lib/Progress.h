#pragma once

#include "tools/lib/Input.h"

#include <chrono>
#include <cstdint>

namespace Tool {

// How far reading has got, in one line on standard error that overwrites itself. Only for who waits at a terminal: from
// the second second on, and not while somebody types the input.
class Progress {
public:
    // mayMixWithAnswers: answers are printed meanwhile, perhaps to the same terminal.
    Progress(Input const& input, bool mayMixWithAnswers);
    Progress(Progress const&) = delete;
    Progress& operator=(Progress const&) = delete;
    ~Progress() { clear(); }

    void tell(LineReader const& lines);
    void clear();  // before anything else is written to standard error

private:
    using Clock = std::chrono::steady_clock;

    bool wanted_;
    bool isShown_ = false;
    std::uint64_t size_ = 0;  // bytes; 0: unknown
    Clock::time_point next_;
};

}  // namespace Tool
