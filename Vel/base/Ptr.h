#pragma once

#include "Vel/base/Types.h"

#include <concepts>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

namespace Vel {

class NotifieeList;
class VelType;

// The process-wide choice of how references are counted.
class VEL_API VFPtrInterface {
public:
    // True: counts change by atomic read-modify-writes; false: by plain operations. Set it before the second thread
    // starts; switching while objects are shared between threads is a race.
    static bool threadSafePointers_;
};

// Adds n to a reference word, atomically if threadSafePointers_ is set. Returns the word before.
inline U32 referenceWordAdd(U32& word, U32 n) noexcept {
    if (VFPtrInterface::threadSafePointers_) [[unlikely]]
        return __atomic_fetch_add(&word, n, __ATOMIC_ACQ_REL);
    U32 const before = word;
    word = before + n;
    return before;
}

// Allocation statistics of one type. They may be read at any time, and are exact if nothing allocates meanwhile,
// whichever threads have allocated. That does not depend on threadSafePointers_: threads that share no object may leave
// it off, and their objects may be of the same type. Plain operations would lose some of their counts, and a lost
// deletion looks like a leak for ever. So counts are plain only while the process has a single thread.
class VEL_API AllocTrackTypeInfo {
public:
    constexpr explicit AllocTrackTypeInfo(char const* typeName) : typeName_(typeName) {}
    AllocTrackTypeInfo(AllocTrackTypeInfo const&) = delete;
    AllocTrackTypeInfo& operator=(AllocTrackTypeInfo const&) = delete;

    void _trackAllocation(std::size_t size, std::size_t alignment) noexcept;  // bytes
    void trackDeallocation(std::size_t size, std::size_t alignment) noexcept;
    void trackArrayAllocation(std::size_t count, std::size_t size) noexcept;  // `count` objects of `size` bytes
    void trackArrayDeallocation(std::size_t count, std::size_t size) noexcept;

    char const* typeName() const noexcept { return typeName_; }
    U64 live() const noexcept { return __atomic_load_n(&live_, __ATOMIC_RELAXED); }            // objects now
    U64 liveBytes() const noexcept { return __atomic_load_n(&liveBytes_, __ATOMIC_RELAXED); }  // bytes now
    U64 allocations() const noexcept { return __atomic_load_n(&total_, __ATOMIC_RELAXED); }    // objects ever

    // Visits the statistics of every type that has ever allocated, in order of first allocation.
    static void visitAll(std::function<void(AllocTrackTypeInfo const&)> const& visit);

private:
    void add(U64 count, U64 bytes) noexcept;
    void subtract(U64 count, U64 bytes) noexcept;

    char const* typeName_;
    U64 live_ = 0;
    U64 liveBytes_ = 0;
    U64 total_ = 0;
    AllocTrackTypeInfo* next_ = nullptr;
    bool listed_ = false;
};

// Base of every reference-counted object.
//
// The bits of countMask in the reference word are the count; the other two bits are flags. A new object has a count of
// zero. The object destroys itself when a decrement makes the count zero, so not before a Ptr has held it.
// Threads: see VFPtrInterface.
class VEL_API PtrInterface : public VFPtrInterface {
public:
    static constexpr U32 countMask = 0x5FFFFFFFu;

    // Derived classes in other libraries depend on this order of the virtual functions.
    virtual NotifieeList* notifieeList() const;     // null if the object can't be observed
    virtual void hasNotificationActiveIs(bool on);  // whether mutators notify the observers
    virtual void zeroReferencesIs(bool zero);       // called with true after the last reference, before destruction
    virtual VelType fwkType() const = 0;            // the registered type; a null type if it is not registered
    virtual ~PtrInterface();

    bool hasNotificationActive() const noexcept { return refWord_ & notificationActiveBit; }
    bool velMarkedForDeletion() const noexcept { return refWord_ & markedForDeletionBit; }
    void velMarkedForDeletionIs(bool marked) noexcept { flagIs(markedForDeletionBit, marked); }

    U32 references() const noexcept { return __atomic_load_n(&refWord_, __ATOMIC_RELAXED) & countMask; }
    void newRef() const noexcept { referenceWordAdd(refWord_, 1); }
    void deleteRef() const {
        if (((referenceWordAdd(refWord_, ~U32(0)) - 1) & countMask) == 0)
            const_cast<PtrInterface*>(this)->handleZeroRef();
    }

    static void* velMemAlloc(std::size_t size);  // throws std::bad_alloc
    static void velMemFree(void* memory, std::size_t size) noexcept;
    static void* operator new(std::size_t size) { return velMemAlloc(size); }
    static void* operator new(std::size_t, void* where) noexcept { return where; }
    static void operator delete(void* memory, std::size_t size) noexcept { velMemFree(memory, size); }

protected:
    PtrInterface() = default;
    PtrInterface(PtrInterface const&) noexcept {}  // a copy has no references and no flags of its own
    PtrInterface& operator=(PtrInterface const&) noexcept { return *this; }

    // Calls zeroReferencesIs(true), then destroys the object. References may be taken meanwhile, but a reference that
    // is not dropped before the end dangles.
    void handleZeroRef();

private:
    static constexpr U32 notificationActiveBit = 0x80000000u;
    static constexpr U32 markedForDeletionBit = 0x20000000u;
    static_assert((countMask | notificationActiveBit | markedForDeletionBit) == 0xFFFFFFFFu);

    void flagIs(U32 bit, bool on) noexcept;

    mutable U32 refWord_ = 0;
};

// Base of a reference-counted type that is no entity, if its allocations should be counted like those of entities:
// class Node : public Vel::TrackedOf<Node>. REQUIRES: T has a static function velAllocTrack() that returns T's
// AllocTrackTypeInfo. Define it in a source file, so that the process has only one.
template <class T> class TrackedOf : public PtrInterface {
public:
    static void* operator new(std::size_t size) {
        static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__, "tracked objects have ordinary alignment");
        void* const memory = velMemAlloc(size);
        T::velAllocTrack()._trackAllocation(size, alignof(T));
        return memory;
    }
    static void operator delete(void* memory, std::size_t size) noexcept {
        T::velAllocTrack().trackDeallocation(size, alignof(T));
        velMemFree(memory, size);
    }
};

// Holds one reference to a T (a PtrInterface), or null.
template <class T> class Ptr {
public:
    using element_type = T;

    constexpr Ptr() noexcept = default;
    constexpr Ptr(std::nullptr_t) noexcept {}
    Ptr(T* object) noexcept : object_(object) { newRef(); }
    Ptr(Ptr const& other) noexcept : object_(other.object_) { newRef(); }
    Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    template <class U>
    requires std::convertible_to<U*, T*> Ptr(Ptr<U> const& other)
    noexcept : object_(other.get()) { newRef(); }
    template <class U>
    requires std::convertible_to<U*, T*> Ptr(Ptr<U>&& other)
    noexcept : object_(other.release()) {}
    Ptr& operator=(Ptr other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~Ptr() {
        if (object_) object_->deleteRef();
    }

    T* get() const noexcept { return object_; }
    T* operator->() const noexcept { return object_; }
    T& operator*() const noexcept { return *object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }
    T* release() noexcept { return std::exchange(object_, nullptr); }  // the caller takes over the reference
    static Ptr adopted(T* object) noexcept {                           // takes over a reference that the caller has
        Ptr p;
        p.object_ = object;
        return p;
    }

    template <class U> friend bool operator==(Ptr const& a, Ptr<U> const& b) noexcept { return a.get() == b.get(); }
    friend bool operator==(Ptr const& a, std::nullptr_t) noexcept { return a.get() == nullptr; }
    friend bool operator==(Ptr const& a, T const* b) noexcept { return a.get() == b; }

private:
    void newRef() const noexcept {
        if (object_) object_->newRef();
    }

    T* object_ = nullptr;
};

// Returns the object as a To if it is one by its dynamic type, else null.
template <class To, class From> Ptr<To> ptr_cast(Ptr<From> const& from) noexcept {
    return Ptr<To>(dynamic_cast<To*>(from.get()));
}
template <class To, class From> Ptr<To> ptr_cast(Ptr<From>&& from) noexcept {
    auto* const object = dynamic_cast<To*>(from.get());
    if (!object) return nullptr;
    Ptr<To> result(object);
    from = nullptr;
    return result;
}

}  // namespace Vel

template <class T> struct std::hash<Vel::Ptr<T>> {
    std::size_t operator()(Vel::Ptr<T> const& p) const noexcept { return std::hash<T*>()(p.get()); }
};
