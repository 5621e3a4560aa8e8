#pragma once

#include <cstddef>
#include <cstring>
#include <type_traits>

namespace Mox::Detail {

// Whether calling the virtual `function` of `object` would run something else than it would for `base`, an object of the
// class that declares it. It may say true without need, and never says false wrongly. So a recursion through a virtual
// function can become a loop where no derived class takes part in it.
//
// Reads the virtual tables, whose layout the Itanium C++ ABI fixes: their address is the first word of an object, and a
// pointer to a virtual member function holds an offset into them (on x86-64 plus 1; elsewhere every answer is true).
template <class Base, class F> bool overrides(Base const& object, Base const& base, F Base::*function) {
#if defined(__x86_64__) && defined(__GXX_ABI_VERSION)
    static_assert(std::is_polymorphic_v<Base>);
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
        std::memcpy(&code, table + member.offset - 1, sizeof code);
        return code;
    };
    return member.adjustment != 0 || entry(object) != entry(base);
#else
    return true;
#endif
}

}  // namespace Mox::Detail
