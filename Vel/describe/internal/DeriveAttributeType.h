#pragma once

#include "Vel/base/Types.h"
#include "Vel/text/Scalar.h"

#include <cstddef>
#include <string_view>
#include <tuple>
#include <type_traits>

// Checks the type of an attribute, with a separate error for each kind of type that is not allowed. The check is done
// where the description is, before anything is derived from it.
namespace Vel {

template <class T> class Ptr;

namespace Detail {

struct None {};

// The result of a function that only has assertions.
struct Asserted {};
template <class Check> inline constexpr bool isAsserted = std::is_same_v<Check, Asserted>;

struct HasDescription {
    int description;
};
// Whether V has a member `description`. Does not use the member's type, which is not known yet within the class V.
template <class V> struct DescriptionSearch : V, HasDescription {};
template <class V> constexpr bool findsDescription(...) { return true; }
template <class V, auto = &DescriptionSearch<V>::description> constexpr bool findsDescription(int) { return false; }

// Whether V is complete. A class that is only declared so far is checked later, by VEL_MODULE.
template <class V, std::size_t = sizeof(V)> constexpr bool isComplete(int) { return true; }
template <class V> constexpr bool isComplete(...) { return false; }

template <class V> inline constexpr bool isPointerToEntity = false;
template <class E> inline constexpr bool isPointerToEntity<Ptr<E>> = true;

template <class V>
concept Many = requires(V& v) {
    v.begin();
    v.end();
};

enum class TypeFault : U8 { none, integer, floating, enumeration, text, time, many, pointer, undescribed };

template <class V> constexpr TypeFault faultOfClass() {
    if constexpr (std::is_convertible_v<V const&, std::string_view>) return TypeFault::text;
    if constexpr (Duration<V>) return TypeFault::time;
    if constexpr (Many<V>) return TypeFault::many;
    return TypeFault::undescribed;
}

template <class V> constexpr TypeFault typeFault() {
    if constexpr (std::is_void_v<V> || std::is_same_v<V, None> || ScalarValue<V> || isPointerToEntity<V>) {
        return TypeFault::none;
    } else if constexpr (std::is_class_v<V>) {
        if constexpr (!isComplete<V>(0) || std::is_final_v<V>) {
            return TypeFault::none;
        } else if constexpr (findsDescription<V>(0)) {
            return TypeFault::none;
        } else {
            return faultOfClass<V>();
        }
    } else if constexpr (std::is_integral_v<V>) {
        return TypeFault::integer;
    } else if constexpr (std::is_floating_point_v<V>) {
        return TypeFault::floating;
    } else if constexpr (std::is_enum_v<V>) {
        return TypeFault::enumeration;
    } else if constexpr (std::is_convertible_v<V const&, std::string_view>) {
        return TypeFault::text;
    } else if constexpr (std::is_pointer_v<V>) {
        return TypeFault::pointer;
    } else {
        return std::is_array_v<V> ? TypeFault::many : TypeFault::undescribed;
    }
}

// One of the types of an attribute: of its value, its key, a call's result or a parameter. Member is the member or
// function that the description gives for the attribute; it is here so that an error shows it.
template <auto Member, class V> struct AttributeType {
    static constexpr TypeFault fault = typeFault<V>();
    static constexpr bool isNoOtherInteger = fault != TypeFault::integer;
    static constexpr bool isNoOtherFloat = fault != TypeFault::floating;
    static constexpr bool isNoEnumeration = fault != TypeFault::enumeration;
    static constexpr bool isNoOtherText = fault != TypeFault::text;
    static constexpr bool isNoOtherTime = fault != TypeFault::time;
    static constexpr bool isOneValue = fault != TypeFault::many;
    static constexpr bool isNoPointer = fault != TypeFault::pointer;
    static constexpr bool isDescribed = fault != TypeFault::undescribed;
};
// The assertions are in a function of which only the type is used. Compilers treat no value as constant that depends on
// a failed assertion, and would report further errors because of that.
template <auto Member, class V> constexpr auto checkAttributeType() {
    static_assert(AttributeType<Member, V>::isNoOtherInteger,
        "the integers of attributes are Vel::U8, Vel::U16, Vel::U32 and Vel::U64; for one with a sign use double, or a "
        "number type of your own (docs/tutorial.md, Signed integers)");
    static_assert(AttributeType<Member, V>::isNoOtherFloat, "the floating-point type of attributes is double");
    static_assert(AttributeType<Member, V>::isNoEnumeration,
        "an enumeration has no description: use a class that derives from "
        "Vel::EnumerationOf (Vel/describe/Enumeration.h)");
    static_assert(AttributeType<Member, V>::isNoOtherText, "the text of attributes is Vel::String");
    static_assert(AttributeType<Member, V>::isNoOtherTime, "times and durations of attributes are Vel::Seconds");
    static_assert(
        AttributeType<Member, V>::isOneValue, "an attribute is one value: describe several as a Vel::collection");
    static_assert(AttributeType<Member, V>::isNoPointer, "an attribute that refers to an entity is a Vel::Ptr");
    static_assert(AttributeType<Member, V>::isDescribed,
        "the type of an attribute is a scalar, or describes itself: give the class a description()");
    return Asserted();
}

template <auto Member, class Types> inline constexpr bool areGood = true;
template <auto Member, class... V>
inline constexpr bool areGood<Member, std::tuple<V...>> =
    ((isAsserted<decltype(checkAttributeType<Member, V>())> && typeFault<V>() == TypeFault::none) && ...);
template <auto Member, class A>
inline constexpr bool hasGoodTypes =
    areGood<Member, std::tuple<typename A::Value, typename A::Key, typename A::Result>>&&
        areGood<Member, typename A::Parameters>;

}  // namespace Detail
}  // namespace Vel
