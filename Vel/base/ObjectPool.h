#pragma once

#include "Vel/base/Types.h"

#include <cstddef>

namespace Vel {

// Memory for small objects of a few sizes, of which there are many: blocks of one size, side by side in pages.
//
// Each thread allocates from pages of its own, without a lock. A block may be freed by any thread. A page whose blocks
// are all free is given back to the C library, but for one page of each size in a thread. Blocks that other threads
// free wait, and are used again or given back when the thread needs a new page, or ends. The pages of a thread that has
// ended are taken over by the next new thread; until then a page is given back with its last block.
//
// A block whose size is a multiple of 16 bytes has an address that is one, too. Other addresses are multiples of 8.
class VEL_API ObjectPool {
public:
    static constexpr std::size_t maxSize = 128;  // bytes. Larger objects come from the C library
    // The address sanitizer has to see each object, so that it finds those that are used after they were freed.
#if defined(__SANITIZE_ADDRESS__)
    static constexpr bool used = false;
#elif defined(__has_feature)
    static constexpr bool used = !__has_feature(address_sanitizer);
#else
    static constexpr bool used = true;
#endif

    static void* allocate(std::size_t size);                    // throws std::bad_alloc
    static void free(void* memory, std::size_t size) noexcept;  // REQUIRES: allocate(size) returned it, or it is null
    static std::size_t pages() noexcept;  // of all threads. Any thread may ask; exact if nobody allocates meanwhile
};

}  // namespace Vel
