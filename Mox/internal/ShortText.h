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
    if (a.size() != b.size()) return false;
    if (a.size() > 16) [[unlikely]]
        return std::memcmp(a.data(), b.data(), a.size()) == 0;
    return Vel::TextEnds(a.data(), a.size()) == Vel::TextEnds(b.data(), b.size());
}

// For tables within a process only: the secret, and so the hash, differs from process to process.
inline U32 hashShortText(std::string_view text, Vel::TableSecret const& secret) {
    return static_cast<U32>(Vel::tableHash(text, 0, secret));
}

}  // namespace Mox::Detail
