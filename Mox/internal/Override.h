#pragma once

#include <cstddef>
#include <cstring>
#include <type_traits>

namespace Mox::Detail {

// Whether calling the virtual `function` of `object` would run something else than it would for `base`, an object of
// the class that declares it. It may say true without need, and never says false wrongly. So a recursion through a
// virtual function can become a loop where no derived class takes part in it.
//
// Reads the virtual tables, whose layout the Itanium C++ ABI fixes: their address is the first word of an object. A
// pointer to a virtual member function holds an offset into them plus 1, and how far its object is from the one at
// hand. On arm64 twice as far, and there the 1 is. On other processors every answer is true.
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
