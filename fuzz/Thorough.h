#pragma once

#include <cstdint>
#include <span>

// Whether an input is one of those, one in sixteen, for which all is asked that can be asked. All its bytes choose: if
// one did, inputs would be bred that cost most.
inline bool isThorough(std::span<std::uint8_t const> bytes) {
    std::uint32_t hash = 1;
    for (std::uint8_t const byte : bytes) hash = (hash ^ byte) * 0x9e3779b1u;
    return hash >> 28 == 0;
}
