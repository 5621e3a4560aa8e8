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

// Adds n to a reference word by the rule of the switch above; returns the word before.
inline U32 referenceWordAdd(U32& word, U32 n) noexcept {
    if (VFPtrInterface::threadSafePointers_) [[unlikely]]
        return __atomic_fetch_add(&word, n, __ATOMIC_ACQ_REL);
    U32 const before = word;
    word = before + n;
    return before;
}

// Allocation statistics of one type. Readable at any time; exact when nothing allocates meanwhile.
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
// The reference word: the count lives in the bits of countMask, the other two bits are flags. The object destroys
// itself when a decrement leaves the count at zero; until a Ptr first holds it, the count is zero and nothing happens.
// Threads: see VFPtrInterface.
class VEL_API PtrInterface : public VFPtrInterface {
public:
    static constexpr U32 countMask = 0x5FFFFFFFu;

    // The virtual operations come in this order, which derived classes in other libraries rely on.
    virtual NotifieeList* notifieeList() const;     // null: not observable
    virtual void hasNotificationActiveIs(bool on);  // whether mutators tell the observers
    virtual void zeroReferencesIs(bool zero);       // told true when the last reference has gone, before destruction
    virtual VelType fwkType() const = 0;            // the registered type; a null type when it has none
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

    // Tells zeroReferencesIs(true) and destroys the object. References taken and dropped meanwhile are allowed; one
    // that is kept dangles.
    void handleZeroRef();

private:
    static constexpr U32 notificationActiveBit = 0x80000000u;
    static constexpr U32 markedForDeletionBit = 0x20000000u;
    static_assert((countMask | notificationActiveBit | markedForDeletionBit) == 0xFFFFFFFFu);

    void flagIs(U32 bit, bool on) noexcept;

    mutable U32 refWord_ = 0;
};

// What a reference-counted type that is no entity derives from, so that its objects are tracked as entities are: class
// Node : public Vel::TrackedOf<Node>. T has a static function velAllocTrack() that yields T's AllocTrackTypeInfo;
// defined in a source file, it is one for the whole process.
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

    template <class U> friend bool operator==(Ptr const& a, Ptr<U> const& b) noexcept { return a.get() == b.get(); }
    friend bool operator==(Ptr const& a, std::nullptr_t) noexcept { return a.get() == nullptr; }
    friend bool operator==(Ptr const& a, T const* b) noexcept { return a.get() == b; }

private:
    void newRef() const noexcept {
        if (object_) object_->newRef();
    }

    T* object_ = nullptr;
};

// The object as a To when it is one (by its dynamic type), else null.
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
