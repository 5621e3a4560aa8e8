#pragma once

#include "Vel/base/Types.h"

#include <cstddef>
#include <memory>

// Blocks of 256 words, in which an id set with many words stores them. Each union of such sets needs a block, and
// malloc is slow at this size, so every thread keeps a few freed blocks for its next sets.
namespace Mox::Detail {

Vel::U64* takeBlock();                     // not initialised; aligned to a cache line; throws std::bad_alloc
void giveBlock(Vel::U64* block) noexcept;  // may be called on another thread than takeBlock()

// Not inline: if the compiler knows `count`, it emits "rep stos", which is slow to start.
void clearWords(Vel::U64* words, std::size_t count) noexcept;

struct GiveBlock {
    void operator()(Vel::U64* block) const noexcept { giveBlock(block); }
};
using Block = std::unique_ptr<Vel::U64[], GiveBlock>;

}  // namespace Mox::Detail
