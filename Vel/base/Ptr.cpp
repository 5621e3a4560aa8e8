#include "Vel/base/Ptr.h"

#include "Vel/base/ObjectPool.h"

#include <mutex>
#include <new>
#include <utility>
#include <vector>

#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>  // glibc, from 2.32 on
#define VEL_KNOWS_SINGLE_THREAD
#endif

namespace Vel {

constinit bool VFPtrInterface::threadSafePointers_ = false;

namespace {

constinit std::mutex trackedMutex;
constinit AllocTrackTypeInfo* trackedFirst = nullptr;
constinit AllocTrackTypeInfo** trackedEnd = &trackedFirst;

// Adds n to a count. With the C library's word that there is only one thread, no locked operation is needed, which takes
// some 8 ns. That word is taken back before a second thread starts.
void countAdd(U64& count, U64 n) noexcept {
#ifdef VEL_KNOWS_SINGLE_THREAD
    if (__libc_single_threaded) [[likely]] {
        __atomic_store_n(&count, count + n, __ATOMIC_RELAXED);
        return;
    }
#endif
    __atomic_fetch_add(&count, n, __ATOMIC_RELAXED);
}

}  // namespace

void AllocTrackTypeInfo::add(U64 count, U64 bytes) noexcept {
    if (!__atomic_load_n(&listed_, __ATOMIC_ACQUIRE)) {
        std::lock_guard const lock(trackedMutex);
        if (!listed_) {
            *trackedEnd = this;
            trackedEnd = &next_;
            __atomic_store_n(&listed_, true, __ATOMIC_RELEASE);
        }
    }
    countAdd(live_, count);
    countAdd(liveBytes_, bytes);
    countAdd(total_, count);
}

void AllocTrackTypeInfo::subtract(U64 count, U64 bytes) noexcept {
    countAdd(live_, 0 - count);
    countAdd(liveBytes_, 0 - bytes);
}

void AllocTrackTypeInfo::_trackAllocation(std::size_t size, std::size_t) noexcept { add(1, size); }
void AllocTrackTypeInfo::trackDeallocation(std::size_t size, std::size_t) noexcept { subtract(1, size); }
void AllocTrackTypeInfo::trackArrayAllocation(std::size_t count, std::size_t size) noexcept {
    add(count, count * size);
}
void AllocTrackTypeInfo::trackArrayDeallocation(std::size_t count, std::size_t size) noexcept {
    subtract(count, count * size);
}

void AllocTrackTypeInfo::visitAll(std::function<void(AllocTrackTypeInfo const&)> const& visit) {
    // Entries are never removed, so `visit` is called without the lock and may allocate.
    AllocTrackTypeInfo* first = nullptr;
    {
        std::lock_guard const lock(trackedMutex);
        first = trackedFirst;
    }
    while (first) {
        visit(*first);
        std::lock_guard const lock(trackedMutex);
        first = first->next_;
    }
}

NotifieeList* PtrInterface::notifieeList() const { return nullptr; }
void PtrInterface::hasNotificationActiveIs(bool on) { flagIs(notificationActiveBit, on); }
void PtrInterface::zeroReferencesIs(bool) {}
PtrInterface::~PtrInterface() = default;

namespace {

// The destructor of an object may drop the last reference to another, whose destructor drops the next, and so on.
// Beyond this depth, objects wait in a list until the outermost is destroyed, so that a long chain does not exhaust the
// stack.
constexpr unsigned maxNestedDestruction = 64;
struct Destruction {  // of one thread; together, so that a library looks up its thread-local variables once
    unsigned nested = 0;
    std::vector<PtrInterface*>* waiting = nullptr;
};
thread_local constinit Destruction threadDestruction;

// Adds the object to the list. Returns false if there is no memory for that.
VEL_COLD bool waits(Destruction& destruction, PtrInterface* object) {
    try {
        if (!destruction.waiting) destruction.waiting = new std::vector<PtrInterface*>;
        destruction.waiting->push_back(object);
        return true;
    } catch (std::bad_alloc const&) {
        return false;
    }
}

// REQUIRES: there is a list, and no object is being destroyed.
VEL_COLD void destroyWaiting(Destruction& destruction) {
    destruction.nested = 1;
    while (!destruction.waiting->empty()) {
        PtrInterface* const next = destruction.waiting->back();
        destruction.waiting->pop_back();
        delete next;
    }
    destruction.nested = 0;
    delete std::exchange(destruction.waiting, nullptr);
}

}  // namespace

void PtrInterface::handleZeroRef() {
    newRef();  // keeps the count above 0: references taken meanwhile must not destroy the object again
    zeroReferencesIs(true);
    Destruction& destruction = threadDestruction;
    if (destruction.nested >= maxNestedDestruction && waits(destruction, this)) return;
    ++destruction.nested;
    delete this;
    --destruction.nested;
    if (destruction.nested == 0 && destruction.waiting) [[unlikely]]
        destroyWaiting(destruction);
}

void PtrInterface::flagIs(U32 bit, bool on) noexcept {
    // The flags are in the same word as the count, so they must be atomic whenever the count is.
    if (threadSafePointers_) {
        if (on)
            __atomic_fetch_or(&refWord_, bit, __ATOMIC_ACQ_REL);
        else
            __atomic_fetch_and(&refWord_, ~bit, __ATOMIC_ACQ_REL);
    } else {
        refWord_ = on ? refWord_ | bit : refWord_ & ~bit;
    }
}

void* PtrInterface::velMemAlloc(std::size_t size) { return ObjectPool::allocate(size); }
void PtrInterface::velMemFree(void* memory, std::size_t size) noexcept { ObjectPool::free(memory, size); }

}  // namespace Vel
