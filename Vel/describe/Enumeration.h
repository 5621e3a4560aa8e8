#pragma once

#include "Vel/describe/Value.h"

#include <array>
#include <span>
#include <string_view>
#include <type_traits>

// Enumerations as described values: numbers whose text is a name.
//
//     enum class SkyName : Vel::U8 { clear, cloudy, rain };
//
//     class Sky : public Vel::EnumerationOf<Sky, SkyName> {
//     public:
//         using EnumerationOf::EnumerationOf;
//         static constexpr auto description() {
//             return Vel::enumeration<Sky>("Weather::Sky",
//                 Vel::enumerator<SkyName::clear>("clear"),      // attribute 3, a constant
//                 Vel::enumerator<SkyName::cloudy>("cloudy"),    // 4
//                 Vel::enumerator<SkyName::rain>("rain"));       // 5
//         }
//     };
//
// The text is the name in quotes, 'rain'. A number without a name, which another version of a program may send, is
// kept, and its text is the number, 7. The bytes are those of the unsigned integer, which is also attribute 2, `value`.
namespace Vel {

namespace Detail {

struct EnumeratorName {
    std::string_view name;
    U64 number = 0;
};
VEL_API void printEnumeration(StrepOut& out, U64 number, std::span<EnumeratorName const> names);
// Parses a name, or a number up to `most` that has no name. Throws ParseException, which lists the names, if there is
// neither.
VEL_API U64 parseEnumeration(
    String::IteratorConst& it, String::IteratorConst const& end, std::span<EnumeratorName const> names, U64 most);

template <auto E> constexpr auto enumeratorValue() {
    return static_cast<std::underlying_type_t<std::remove_const_t<decltype(E)>>>(E);
}
template <auto E> struct Enumerator : Constant<&enumeratorValue<E>> {
    static constexpr U64 number = static_cast<U64>(enumeratorValue<E>());
};

template <class T, std::size_t... I> constexpr auto enumeratorNames(std::index_sequence<I...>) {
    return std::array{EnumeratorName{attributeName<T, I + 1>(), AttributeAt<T, I + 1>::number}...};
}
template <class T>
__attribute__((visibility("hidden"))) inline constexpr auto enumeratorNamesOf = enumeratorNames<T>(
    std::make_index_sequence<attributeCount<T> - 1>());

template <class T> void printEnumerationOf(StrepOut& out, T const& value) {
    printEnumeration(out, static_cast<U64>(value.value()), enumeratorNamesOf<T>);
}
template <class T> T parseEnumerationOf(String::IteratorConst& it, String::IteratorConst const& end, T*) {
    using Number = std::underlying_type_t<typename T::Enum>;
    U64 const number = parseEnumeration(it, end, enumeratorNamesOf<T>, static_cast<Number>(-1));
    return T(static_cast<typename T::Enum>(number));
}

template <class T, auto... E> struct Enumerators {
    static constexpr bool haveDistinctValues = [] {
        std::array<U64, sizeof...(E)> const numbers{Enumerator<E>::number...};
        for (std::size_t i = 0; i < numbers.size(); ++i)
            for (std::size_t j = 0; j < i; ++j)
                if (numbers[i] == numbers[j]) return false;
        return true;
    }();
};
template <class T, class E> struct Enumeration {
    static constexpr bool isUnsigned = [] {
        if constexpr (std::is_enum_v<E>)
            return std::is_unsigned_v<std::underlying_type_t<E>> && ScalarValue<std::underlying_type_t<E>>;
        else
            return false;
    }();
};

}  // namespace Detail

// Base of the enumeration type T. E is its enumeration, whose underlying type must be U8, U16, U32 or U64.
template <class T, class E> class EnumerationOf {
    static_assert(Detail::Enumeration<T, E>::isUnsigned,
        "an enumeration needs an unsigned type: enum class Name : Vel::U8 { ... }");

public:
    using Enum = E;
    using Number = std::underlying_type_t<E>;

    constexpr EnumerationOf() = default;  // 0, whether that has a name or not
    constexpr EnumerationOf(E value) : number_(static_cast<Number>(value)) {}
    constexpr explicit EnumerationOf(Number number) : number_(number) {}  // for reflection
    EnumerationOf(String::IteratorConst& it, String::IteratorConst const& end)
        : EnumerationOf(Detail::parseEnumerationOf(it, end, static_cast<T*>(nullptr)).value()) {}
    EnumerationOf(NboAttrLog::In* in, StreamBogon) { Vel::read(static_cast<T&>(*this), *in); }

    constexpr E value() const { return static_cast<E>(number_); }
    constexpr void valueIs(E value) & { number_ = static_cast<Number>(value); }
    // Returns the name, or an empty text if the number has none.
    std::string_view name() const {
        for (auto const& known : Detail::enumeratorNamesOf<T>)
            if (known.number == number_) return known.name;
        return {};
    }

    friend constexpr bool operator==(EnumerationOf const&, EnumerationOf const&) = default;
    friend constexpr auto operator<=>(EnumerationOf const&, EnumerationOf const&) = default;

    // Used by enumeration() below.
    template <class... A> static constexpr auto velDescription(char const* name, A... enumerators) {
        using Options = Detail::TextOption<&Detail::printEnumerationOf<T>, &Detail::parseEnumerationOf<T>>;
        using Stored = Field<&EnumerationOf::number_, Detail::None{}, true>;
        return Description<Form::number, std::tuple<Stored, A...>, Options>{
            name, {Detail::named<Stored, &EnumerationOf::number_>("value"), enumerators...}};
    }

private:
    Number number_ = 0;
};

// One enumerator with its name.
template <auto E> constexpr auto enumerator(char const* name) {
    Detail::Enumerator<E> attribute{};
    attribute.name = name;
    return attribute;
}
// Returns the description of the enumeration type T, made from its enumerators.
template <class T, auto... E> constexpr auto enumeration(char const* name, Detail::Enumerator<E>... enumerators) {
    static_assert(sizeof...(E) != 0, "an enumeration needs an enumerator");
    static_assert(Detail::Enumerators<T, E...>::haveDistinctValues, "each enumerator needs a value of its own");
    return T::velDescription(name, enumerators...);
}

}  // namespace Vel
