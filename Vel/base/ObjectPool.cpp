#include "Vel/base/ObjectPool.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>
#include <utility>

// Invariants:
// 1. A page belongs to one pool for ever, and a pool to at most one thread. Only that thread uses the pool and its
//    pages, but for `returned` and `orphan`, which need the mutex. If the pool is an orphan, which belongs to no
//    thread, all of it needs the mutex.
// 2. A pool's list of a size has those pages with room. A page that is full is in no list: its blocks find it.
// 3. A page has at least one used block, unless it is the only one in the list of a pool that is no orphan.
namespace Vel {

namespace {

// Memory for a page begins at a multiple of this. It is a little smaller: the header of the C library's next block then
// fits in before the next such address.
constexpr std::size_t pageAlignment = 16384;
constexpr std::size_t pageBytes = pageAlignment - 64;
constexpr std::size_t sizes = ObjectPool::maxSize / 8;
constexpr std::size_t lineBytes = 64;  // of a cache

struct Block {  // one that is free
    Block* next;
};

struct Pool;

// Stands before the blocks.
struct alignas(16) Page {
    Pool* pool;
    Page* next = nullptr;  // in the pool's list
    Page* before = nullptr;
    Block* free = nullptr;
    char* fresh;  // from here on no block was ever used
    U32 blockSize;
    U32 used = 0;  // blocks

    bool full() const {
        return !free && reinterpret_cast<std::uintptr_t>(fresh) % pageAlignment + blockSize > pageBytes;
    }
};

// Where the page of the block is. Pages stand in one of eight lines at the beginning of their memory, by its address:
// if all were in the first one, they would compete for one set of the processor's cache.
Page& pageOf(void* block) {
    auto const memory = reinterpret_cast<std::uintptr_t>(block) & ~(pageAlignment - 1);
    return *reinterpret_cast<Page*>(memory + memory / pageAlignment % 8 * lineBytes);
}
void* memoryOf(Page& page) {
    return reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(&page) & ~(pageAlignment - 1));
}

std::size_t pageCount = 0;  // atomic

constexpr std::size_t indexOf(std::size_t size) { return size == 0 ? 0 : (size - 1) / 8; }

struct Pool {
    Page* withRoom[sizes] = {};  // the first page of each list
    std::mutex mutex;
    Block* returned = nullptr;  // blocks that other threads have freed
    bool hasReturned = false;   // atomic: `returned` is not null
    bool orphan = false;
    Pool* nextOrphan = nullptr;

    void* take(std::size_t size) {
        Page* page = withRoom[indexOf(size)];
        if (!page) [[unlikely]]
            page = &roomFor(size);
        ++page->used;
        void* block = page->free;
        if (block) {
            page->free = page->free->next;
        } else {
            block = page->fresh;
            page->fresh += page->blockSize;
        }
        if (page->full()) [[unlikely]]
            unlink(*page);
        return block;
    }

    void put(void* memory) noexcept {
        Page& page = pageOf(memory);
        bool const wasFull = page.full();
        page.free = new (memory) Block{page.free};
        --page.used;
        if (wasFull) [[unlikely]]
            link(page);
        if (page.used == 0) [[unlikely]]
            emptied(page);
    }

    // Frees what other threads have returned. REQUIRES: the mutex is locked.
    void collect() noexcept {
        Block* block = std::exchange(returned, nullptr);
        __atomic_store_n(&hasReturned, false, __ATOMIC_RELAXED);
        while (block) put(std::exchange(block, block->next));
    }

    // REQUIRES: the mutex is locked.
    void becomeOrphan() noexcept {
        orphan = true;
        collect();
        for (Page* page : withRoom)
            if (page && page->used == 0) emptied(*page);
    }

private:
    VEL_COLD Page& roomFor(std::size_t size) {
        Page*& first = withRoom[indexOf(size)];
        if (!orphan && __atomic_load_n(&hasReturned, __ATOMIC_RELAXED)) {
            std::lock_guard const lock(mutex);
            collect();
        }
        if (first) return *first;
        void* memory = nullptr;
        if (posix_memalign(&memory, pageAlignment, pageBytes) != 0) throw std::bad_alloc();
        auto* const page = new (&pageOf(memory)) Page;
        page->pool = this;
        page->fresh = reinterpret_cast<char*>(page + 1);
        page->blockSize = static_cast<U32>(8 * (indexOf(size) + 1));
        __atomic_fetch_add(&pageCount, 1, __ATOMIC_RELAXED);
        link(*page);
        return *page;
    }

    Page*& firstBeside(Page const& page) { return withRoom[indexOf(page.blockSize)]; }
    VEL_COLD void link(Page& page) noexcept {
        Page*& first = firstBeside(page);
        page.before = nullptr;
        page.next = first;
        if (first) first->before = &page;
        first = &page;
        if (page.next && page.next->used == 0) release(*page.next);
    }
    VEL_COLD void unlink(Page& page) noexcept {
        (page.before ? page.before->next : firstBeside(page)) = page.next;
        if (page.next) page.next->before = page.before;
    }
    VEL_COLD void emptied(Page& page) noexcept {
        if (orphan || page.before || page.next) release(page);
    }
    void release(Page& page) noexcept {
        unlink(page);
        std::free(memoryOf(page));
        __atomic_fetch_sub(&pageCount, 1, __ATOMIC_RELAXED);
    }
};

constinit std::mutex orphansMutex;
constinit Pool* orphans = nullptr;

thread_local constinit Pool* ownPool = nullptr;
thread_local constinit bool exits = false;

struct PoolOwner {
    ~PoolOwner() {
        Pool* const pool = std::exchange(ownPool, nullptr);
        exits = true;  // objects may come and go after this
        if (!pool) return;
        {
            std::lock_guard const lock(pool->mutex);
            pool->becomeOrphan();
        }
        std::lock_guard const lock(orphansMutex);
        pool->nextOrphan = std::exchange(orphans, pool);
    }
};

Pool* anOrphan() {
    std::lock_guard const lock(orphansMutex);
    return orphans ? std::exchange(orphans, orphans->nextOrphan) : nullptr;
}

// The pool for objects that a thread makes while it exits. It belongs to no thread.
Pool& poolAtExit() {
    static auto* const pool = [] {
        auto* const made = new Pool;
        made->orphan = true;
        return made;
    }();
    return *pool;
}

VEL_COLD void* allocateWithoutPool(std::size_t size) {
    if (exits) {
        Pool& pool = poolAtExit();
        std::lock_guard const lock(pool.mutex);
        return pool.take(size);
    }
    thread_local PoolOwner const owner;
    Pool* pool = anOrphan();
    if (pool) {
        std::lock_guard const lock(pool->mutex);
        pool->orphan = false;
    } else {
        pool = new Pool;
    }
    ownPool = pool;
    return pool->take(size);
}

VEL_COLD void freeElsewhere(Pool& pool, void* memory) noexcept {
    std::lock_guard const lock(pool.mutex);
    if (pool.orphan) return pool.put(memory);
    pool.returned = new (memory) Block{pool.returned};
    __atomic_store_n(&pool.hasReturned, true, __ATOMIC_RELAXED);
}

}  // namespace

void* ObjectPool::allocate(std::size_t size) {
    if (!used || size > maxSize) [[unlikely]]
        return ::operator new(size);
    Pool* const pool = ownPool;
    return pool ? pool->take(size) : allocateWithoutPool(size);
}

void ObjectPool::free(void* memory, std::size_t size) noexcept {
    if (!used || size > maxSize || !memory) [[unlikely]]
        return ::operator delete(memory);  // not the sized form: clang 14 declares that only with -fsized-deallocation
    Pool* const pool = pageOf(memory).pool;
    if (pool == ownPool) [[likely]]
        pool->put(memory);
    else
        freeElsewhere(*pool, memory);
}

std::size_t ObjectPool::pages() noexcept { return __atomic_load_n(&pageCount, __ATOMIC_RELAXED); }

}  // namespace Vel
