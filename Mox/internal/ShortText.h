#pragma once

#include "Vel/base/TableHash.h"
#include "Vel/base/Types.h"

#include <cstring>
#include <string_view>

// Compares and hashes texts that mostly have up to 16 bytes: for these a call of memcmp() costs more than the
// comparison itself.
namespace Mox::Detail {

using Vel::U32;
using Vel::U64;

inline bool sameShortText(std::string_view a, std::string_view b) {
    std::size_t const length = a.size();
    if (length != b.size()) return false;
    char const* const x = a.data();
    char const* const y = b.data();
    auto const differ = [&]<class Word>(Word, std::size_t at) {  // not 0 if the words there do
        return static_cast<Word>(Vel::wordAt<Word>(x + at) ^ Vel::wordAt<Word>(y + at));
    };
    if (length >= 8) {
        if (length > 16) [[unlikely]]
            return std::memcmp(x, y, length) == 0;
        return (differ(U64(), 0) | differ(U64(), length - 8)) == 0;
    }
    if (length >= 4) return (differ(U32(), 0) | differ(U32(), length - 4)) == 0;
    return length == 0 || (x[0] == y[0] && x[length / 2] == y[length / 2] && x[length - 1] == y[length - 1]);
}

// For tables within a process only: the secret, and so the hash, differs from process to process.
inline U32 hashShortText(std::string_view text, Vel::TableSecret const& secret) {
    return static_cast<U32>(Vel::tableHash(text, 0, secret));
}

}  // namespace Mox::Detail
