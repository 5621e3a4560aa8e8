#pragma once

#include "Vel/base/TableHash.h"
#include "Vel/base/Types.h"

#include <cstring>
#include <string_view>

// Comparing and hashing texts of mostly up to 16 bytes, where a call of the C library costs more than the work.
namespace Mox::Detail {

using Vel::U32;
using Vel::U64;

inline bool sameShortText(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    if (a.size() > 16) [[unlikely]]
        return std::memcmp(a.data(), b.data(), a.size()) == 0;
    return Vel::TextEnds(a.data(), a.size()) == Vel::TextEnds(b.data(), b.size());
}

// For tables within a process only: another one in each.
inline U32 hashShortText(std::string_view text, Vel::TableSecret const& secret) {
    return static_cast<U32>(Vel::tableHash(text, 0, secret));
}

}  // namespace Mox::Detail
