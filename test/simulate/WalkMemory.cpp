#include "WalkMemory.h"

#include "Vel/base/ObjectPool.h"

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void __libc_free(void* memory);
}

namespace {

constexpr std::size_t unit = 16, classes = 64;  // bytes; blocks of up to 63 units are used again

struct Block {
    std::size_t units;  // with this header
    Block* next;        // of those that are free, where the block's bytes are
};

// What is put back begins with what says where things are.
struct Arena {
    std::array<Block*, classes> free;
    std::size_t used;
    alignas(unit) std::byte bytes[4u << 20];
};
Arena arena;
Arena kept;
bool isOn = false;

constexpr std::size_t headSize = offsetof(Arena, bytes);

// Blocks are as malloc's: eight bytes in front of what is aligned to 16.
void* allocate(std::size_t size) {
    std::size_t const units = (size + sizeof(std::size_t) + unit - 1) / unit + (size == 0);
    if (units < classes && arena.free[units]) {
        Block* const block = arena.free[units];
        arena.free[units] = block->next;
        return &block->next;
    }
    if (units > (sizeof arena.bytes - arena.used) / unit - 1) std::abort();
    auto* const block = reinterpret_cast<Block*>(arena.bytes + arena.used + unit - sizeof(std::size_t));
    arena.used += units * unit;
    block->units = units;
    return &block->next;
}
Block* blockOf(void* memory) {
    return reinterpret_cast<Block*>(static_cast<std::byte*>(memory) - offsetof(Block, next));
}
bool isHere(void const* memory) { return memory >= arena.bytes && memory < arena.bytes + sizeof arena.bytes; }

}  // namespace

void WalkMemory::begin() {
    isOn = true;
    arena.free = {};
    arena.used = 0;
}
void WalkMemory::end() { isOn = false; }
void WalkMemory::keep() { std::memcpy(&kept, &arena, headSize + arena.used + unit); }
void WalkMemory::restore() { std::memcpy(&arena, &kept, headSize + kept.used + unit); }

#define REPLACED extern "C" __attribute__((visibility("default")))

REPLACED void* malloc(std::size_t size) { return isOn ? allocate(size) : __libc_malloc(size); }
REPLACED void free(void* memory) {
    if (!isHere(memory)) return __libc_free(memory);
    Block* const block = blockOf(memory);
    if (block->units >= classes) return;
    block->next = arena.free[block->units];
    arena.free[block->units] = block;
}
REPLACED void* calloc(std::size_t count, std::size_t size) {
    if (!isOn) return __libc_calloc(count, size);
    return std::memset(allocate(count * size), 0, count * size);
}
REPLACED void* realloc(void* memory, std::size_t size) {
    if (!isOn || !memory) return isOn ? allocate(size) : __libc_realloc(memory, size);
    if (!isHere(memory)) std::abort();
    std::size_t const room = blockOf(memory)->units * unit - sizeof(std::size_t);
    if (size <= room) return memory;
    void* const larger = std::memcpy(allocate(size), memory, room);
    free(memory);
    return larger;
}

// Nor does the library keep pages of its own, which would stay as they are while what refers to them is put back.
void* Vel::ObjectPool::allocate(std::size_t size) { return ::operator new(size); }
void Vel::ObjectPool::free(void* memory, std::size_t) noexcept { ::operator delete(memory); }
