#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

// Where a virtual operation stands in the table of its class, as the C++ ABI puts it into a pointer to member: in
// bytes, marked by a 1 that is added. On arm64 the mark is in the second word.
template <class F> std::ptrdiff_t slotOf(F operation) {
    std::ptrdiff_t words[2];
    static_assert(sizeof operation == sizeof words);
    std::memcpy(words, &operation, sizeof words);
#if defined(__aarch64__)
    std::ptrdiff_t const mark = words[1] & 1, offset = words[0], adjustment = words[1] >> 1;
#else
    std::ptrdiff_t const mark = words[0] & 1, offset = words[0] - 1, adjustment = words[1];
#endif
    EXPECT_EQ(mark, 1) << "not virtual";
    EXPECT_EQ(adjustment, 0) << "in another base";
    return offset / static_cast<std::ptrdiff_t>(sizeof(void*));
}
