#pragma once

#include "Vel/base/Types.h"

#include <cstddef>
#include <memory>

// Blocks of 256 words, as an id set with many words keeps them. malloc is slow at this size, while unions and the like
// need a block each, so every thread keeps a few freed ones for its next sets.
namespace Mox::Detail {

Vel::U64* takeBlock();                     // not initialised; aligned to a cache line; throws std::bad_alloc
void giveBlock(Vel::U64* block) noexcept;  // on any thread

// Not in line: of a known number, the compiler makes "rep stos", which begins slowly.
void clearWords(Vel::U64* words, std::size_t count) noexcept;

struct GiveBlock {
    void operator()(Vel::U64* block) const noexcept { giveBlock(block); }
};
using Block = std::unique_ptr<Vel::U64[], GiveBlock>;

}  // namespace Mox::Detail
