#pragma once

#include "Vel/base/Types.h"

#include <bit>
#include <vector>

namespace Vel::NboAttrLog {

// One flag for each slot of a demuxer.
class SlotSet {
public:
    bool has(U32 slot) const { return slot / 64 < words_.size() && (words_[slot / 64] >> slot % 64 & 1); }
    void add(U32 slot) {
        if (slot / 64 >= words_.size()) words_.resize(slot / 64 + 1);
        words_[slot / 64] |= U64(1) << slot % 64;
    }
    void del(U32 slot) {
        if (slot / 64 < words_.size()) words_[slot / 64] &= ~(U64(1) << slot % 64);
    }
    // Calls f(slot) for each slot that this set has and `other` has not, in ascending order, until a call returns true.
    template <class F> void eachNotIn(SlotSet const& other, F f) const {
        for (std::size_t i = 0; i < words_.size(); ++i) {
            U64 left = words_[i] & ~(i < other.words_.size() ? other.words_[i] : 0);
            for (; left != 0; left &= left - 1)
                if (f(static_cast<U32>(i * 64 + static_cast<unsigned>(std::countr_zero(left))))) return;
        }
    }
    // Returns the first of these slots, or `none`.
    static constexpr U32 none = ~U32(0);
    U32 firstNotIn(SlotSet const& other) const {
        U32 first = none;
        eachNotIn(other, [&](U32 slot) {
            first = slot;
            return true;
        });
        return first;
    }
    void clear() { std::vector<U64>().swap(words_); }  // and frees the memory

private:
    std::vector<U64> words_;
};

}  // namespace Vel::NboAttrLog
