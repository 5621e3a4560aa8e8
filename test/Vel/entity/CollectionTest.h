#pragma once

#include "Vel/base/String.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <new>
#include <random>
#include <string>
#include <utility>

// What the tests of the collections share.
namespace CollectionTest {

// Calls of malloc so far, operator new included. Not counted under sanitizers, whose allocator it is then.
unsigned long allocations();
bool allocationsAreCounted();

template <class F> unsigned long allocationsOf(F f) {
    auto const before = allocations();
    f();
    return allocations() - before;
}

// After that many allocations, while one of these lives, malloc and operator new fail (where allocations are counted).
class NoMemory {
public:
    explicit NoMemory(int allocationsBefore = 0);
    NoMemory(NoMemory const&) = delete;
    NoMemory& operator=(NoMemory const&) = delete;
    ~NoMemory();
};

// A value that counts how many there are, and whose construction fails on demand.
class Counted {
public:
    explicit Counted(int number) : number_(number) {
        if (failAfter == 0) throw std::bad_alloc();
        if (failAfter != never) --failAfter;
        ++live;
    }
    Counted(Counted const& other) : Counted(other.number_) {}
    Counted(Counted&& other) noexcept : number_(std::exchange(other.number_, -1)) { ++live; }
    Counted& operator=(Counted&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~Counted() { --live; }

    int number() const { return number_; }
    friend bool operator==(Counted const& a, Counted const& b) { return a.number_ == b.number_; }

    inline static long live = 0;
    static constexpr int never = -1;
    inline static int failAfter = never;  // so many more are constructed from numbers, or copied

private:
    int number_;
};

// A value whose destruction runs what it is told to.
template <class F> class AtDestruction {
public:
    explicit AtDestruction(F f) : f_(std::move(f)) {}
    AtDestruction(AtDestruction&& other) noexcept
        : f_(std::move(other.f_)), armed_(std::exchange(other.armed_, false)) {}
    AtDestruction& operator=(AtDestruction&&) = delete;
    ~AtDestruction() {
        if (armed_) f_();
    }

private:
    F f_;
    bool armed_ = true;
};

// Random numbers, the same in every run and on every platform.
class Random {
public:
    explicit Random(unsigned seed) : engine_(seed) {}
    unsigned operator()(unsigned below) { return static_cast<unsigned>(engine_() % below); }

private:
    std::mt19937 engine_;
};

inline std::string keyText(unsigned n) { return "key " + std::to_string(n) + (n % 3 ? "" : " with a longer text"); }

}  // namespace CollectionTest
