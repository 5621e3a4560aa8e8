#pragma once

#include "Mox/ChipSet.h"

namespace Mox {

// Walks the members of a set in ascending order. It has a copy of the set, so the original may change or be destroyed.
class VEL_API ChipSetIter {
public:
    constexpr explicit ChipSetIter(ChipSet const& set) : set_(set), chipId_(set.firstChipId()), finished_(!inRange()) {}

    constexpr bool inRange() const { return chipId_ != ChipId(ChipId::null()); }
    constexpr explicit operator bool() const { return inRange(); }
    constexpr ChipId key() const {  // REQUIRES: inRange()
        if (!inRange()) [[unlikely]]
            fail(18, "Mox::ChipId Mox::ChipSetIter::key() const");
        return chipId_;
    }
    constexpr bool operator*() const {  // always true: the current chip is a member. REQUIRES: inRange()
        if (!inRange()) [[unlikely]]
            fail(24, "bool Mox::ChipSetIter::operator*() const");
        return true;
    }
    constexpr ChipSetIter& operator++() {  // does nothing at the end
        if (finished_) return *this;
        chipId_ = set_.nextChipId(chipId_);
        finished_ = !inRange();
        return *this;
    }

private:
    [[noreturn]] VEL_COLD static void fail(unsigned line, char const* function);

    ChipSet set_;
    ChipId chipId_;
    bool finished_;
};

}  // namespace Mox
