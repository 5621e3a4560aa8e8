#include "Vel/base/Ptr.h"

#include <mutex>
#include <new>
#include <utility>
#include <vector>

namespace Vel {

constinit bool VFPtrInterface::threadSafePointers_ = false;

namespace {

constinit std::mutex trackedMutex;
constinit AllocTrackTypeInfo* trackedFirst = nullptr;
constinit AllocTrackTypeInfo** trackedEnd = &trackedFirst;

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
    __atomic_fetch_add(&live_, count, __ATOMIC_RELAXED);
    __atomic_fetch_add(&liveBytes_, bytes, __ATOMIC_RELAXED);
    __atomic_fetch_add(&total_, count, __ATOMIC_RELAXED);
}

void AllocTrackTypeInfo::subtract(U64 count, U64 bytes) noexcept {
    __atomic_fetch_sub(&live_, count, __ATOMIC_RELAXED);
    __atomic_fetch_sub(&liveBytes_, bytes, __ATOMIC_RELAXED);
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
    // Entries are never unlisted, so the lock need not be held while visiting, and `visit` may allocate.
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

// An object that was the last to hold another destroys that one too, and so on: beyond this depth they wait until the
// outermost is done, so that a chain of any length takes no stack.
constexpr unsigned maxNestedDestruction = 64;
thread_local unsigned nestedDestruction = 0;
thread_local std::vector<PtrInterface*>* waitingForDestruction = nullptr;

bool waits(PtrInterface* object) {
    try {
        if (!waitingForDestruction) waitingForDestruction = new std::vector<PtrInterface*>;
        waitingForDestruction->push_back(object);
        return true;
    } catch (std::bad_alloc const&) {
        return false;
    }
}

}  // namespace

void PtrInterface::handleZeroRef() {
    newRef();  // references that come and go while the object is being destroyed must not destroy it again
    zeroReferencesIs(true);
    if (nestedDestruction >= maxNestedDestruction && waits(this)) return;
    ++nestedDestruction;
    delete this;
    --nestedDestruction;
    if (nestedDestruction != 0 || !waitingForDestruction) return;
    nestedDestruction = 1;
    while (!waitingForDestruction->empty()) {
        PtrInterface* const next = waitingForDestruction->back();
        waitingForDestruction->pop_back();
        delete next;
    }
    nestedDestruction = 0;
    delete std::exchange(waitingForDestruction, nullptr);
}

void PtrInterface::flagIs(U32 bit, bool on) noexcept {
    // Flags share the word with the count, so they follow its rule.
    if (threadSafePointers_) {
        if (on)
            __atomic_fetch_or(&refWord_, bit, __ATOMIC_ACQ_REL);
        else
            __atomic_fetch_and(&refWord_, ~bit, __ATOMIC_ACQ_REL);
    } else {
        refWord_ = on ? refWord_ | bit : refWord_ & ~bit;
    }
}

void* PtrInterface::velMemAlloc(std::size_t size) { return ::operator new(size); }
// Not the sized form, which clang declares only when asked to.
void PtrInterface::velMemFree(void* memory, std::size_t) noexcept { ::operator delete(memory); }

}  // namespace Vel
