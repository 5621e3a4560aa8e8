#pragma once

#include <cstddef>
#include <cstring>
#include <type_traits>

namespace Mox::Detail {

// Returns whether the class of `object` overrides the virtual `function`, compared with `base`, an object of the class
// that declares it. May return true although it is not overridden, but false is always right. Where it is false, a
// recursion through the virtual function can be written as a loop.
//
// Compares entries of the virtual tables, whose layout the Itanium C++ ABI fixes. The first word of an object is the
// address of its table. A pointer to a virtual member function has two words: the entry's offset in the table plus 1,
// and an adjustment of `this`. On arm64 the 1 is in the second word, whose adjustment is doubled. On other processors
// the function always returns true.
#if defined(__GXX_ABI_VERSION) && (defined(__x86_64__) || defined(__s390x__) || defined(__aarch64__))
template <class Base, class F> bool overrides(Base const& object, Base const& base, F Base::*function) {
    static_assert(std::is_polymorphic_v<Base>);
#if defined(__aarch64__)
    constexpr std::ptrdiff_t markInOffset = 0, markInAdjustment = 1;
#else
    constexpr std::ptrdiff_t markInOffset = 1, markInAdjustment = 0;
#endif
    struct {
        std::ptrdiff_t offset;
        std::ptrdiff_t adjustment;
    } member;
    static_assert(sizeof member == sizeof function);
    std::memcpy(&member, &function, sizeof member);
    auto const entry = [&](Base const& of) {
        char const* table;
        std::memcpy(&table, static_cast<void const*>(&of), sizeof table);
        void* code;
        std::memcpy(&code, table + member.offset - markInOffset, sizeof code);
        return code;
    };
    return member.adjustment != markInAdjustment || entry(object) != entry(base);
}
#else
template <class Base, class F> constexpr bool overrides(Base const&, Base const&, F Base::*) { return true; }
#endif

}  // namespace Mox::Detail
