#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace Mount {

// Room for one handler of an asynchronous operation that is started again and again, so that starting it allocates
// nothing.
class HandlerMemory {
public:
    HandlerMemory() = default;
    HandlerMemory(HandlerMemory const&) = delete;
    HandlerMemory& operator=(HandlerMemory const&) = delete;

    void* allocate(std::size_t size) {
        if (isTaken_ || size > sizeof room_) return ::operator new(size);
        isTaken_ = true;
        return room_;
    }
    void deallocate(void* memory) {
        if (memory != room_) return ::operator delete(memory);
        isTaken_ = false;
    }

private:
    alignas(std::max_align_t) unsigned char room_[256];
    bool isTaken_ = false;
};

template <class T> class HandlerAllocator {
public:
    using value_type = T;
    explicit HandlerAllocator(HandlerMemory& memory) : memory_(&memory) {}
    template <class U> HandlerAllocator(HandlerAllocator<U> const& other) : memory_(other.memory()) {}

    T* allocate(std::size_t count) { return static_cast<T*>(memory_->allocate(count * sizeof(T))); }
    void deallocate(T* memory, std::size_t) { memory_->deallocate(memory); }
    HandlerMemory* memory() const { return memory_; }
    template <class U> bool operator==(HandlerAllocator<U> const& other) const { return memory_ == other.memory(); }

private:
    HandlerMemory* memory_;
};

// A handler that Asio stores in a HandlerMemory. REQUIRES: what `f` captures keeps the memory alive.
template <class F> class KeptHandler {
public:
    using allocator_type = HandlerAllocator<void>;
    KeptHandler(HandlerMemory& memory, F f) : memory_(&memory), f_(std::move(f)) {}
    allocator_type get_allocator() const noexcept { return allocator_type(*memory_); }
    template <class... A> void operator()(A&&... arguments) { f_(std::forward<A>(arguments)...); }

private:
    HandlerMemory* memory_;
    F f_;
};

}  // namespace Mount
