#pragma once

#include "Vel/describe/GenericIf.h"

#include <algorithm>
#include <concepts>
#include <string_view>
#include <utility>

// Checks that a description is good enough to derive from, with an error for each thing that is wrong.
namespace Vel::Detail {

template <class T> constexpr std::size_t countOfKind(AttributeKind kind) {
    std::size_t count = 0;
    forEachAttribute<T>([&](auto index) { count += AttributeAt<T, decltype(index)::value>::kind == kind; });
    return count;
}

template <class T> constexpr bool hasDistinctNames() {
    std::array<std::string_view, attributeCount<T>> names{};
    bool distinct = true;
    forEachAttribute<T>([&](auto index) {
        constexpr std::size_t I = decltype(index)::value;
        names[I] = attributeName<T, I>();
        distinct = distinct && !names[I].empty();
        for (std::size_t i = 0; i < I; ++i) distinct = distinct && names[i] != names[I];
    });
    return distinct;
}

template <class T> constexpr bool isOrderedOrSaysNothing() {
    if constexpr (hasOption<T, OptionId::ordered>) return requires(T const& a, T const& b) {
            { a < b } -> std::convertible_to<bool>;
        };
    else
        return true;
}

template <class T, class Option> constexpr bool canCompute() {
    if constexpr (Option::id != OptionId::arithmetic)
        return true;
    else if constexpr (Option::op == AttributeOp::complement)
        return std::is_invocable_r_v<T, decltype(Option::function), T const&>;
    else
        return std::is_invocable_r_v<T, decltype(Option::function), T const&, T const&>;
}
template <class T> constexpr bool canComputeAll() {
    return []<class... O>(std::type_identity<std::tuple<O...>>) { return (canCompute<T, O>() && ...); }(
               std::type_identity<typename DescriptionOf<T>::OptionTypes>());
}

// --- texts that an error shows ---

#ifdef __clang__  // which shows the characters of a structure as numbers, and not all of them
template <char... Characters> struct Shown {};
template <class Text> constexpr auto shown() {
    return []<std::size_t... I>(std::index_sequence<I...>) { return Shown<Text::value[I]...>(); }
    (std::make_index_sequence<Text::value.size()>());
}
#else
template <std::size_t N> struct Characters {
    char text[N + 1] = {};
};
template <Characters> struct Shown {};
template <class Text> constexpr auto shown() {
    constexpr auto characters = [] {
        Characters<Text::value.size()> copy;
        std::copy(Text::value.begin(), Text::value.end(), copy.text);
        return copy;
    }();
    return Shown<characters>();
}
#endif
// The type whose name in an error shows the text Text::value.
template <class Text> using ShownText = decltype(shown<Text>());

// --- names ---

constexpr bool isIdentifier(std::string_view name) {
    auto const isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; };
    for (char const c : name)
        if (!isLetter(c) && !(c >= '0' && c <= '9')) return false;
    return !name.empty() && isLetter(name[0]);
}

template <class T, std::size_t I> struct AttributeNameText {
    static constexpr std::string_view value = attributeName<T, I>();
};
template <class T, std::size_t I, std::size_t P> struct ParameterNameText {
    static constexpr std::string_view value = std::get<I>(descriptionOf<T>.attributes).parameterNames[P];
};
// Names is the attribute's name, followed by the name of one of its parameters if that is the wrong one.
template <class T, class... Names> struct AttributeName { static constexpr bool isIdentifier = false; };
template <class T, class... Names> constexpr auto checkName() {
    static_assert(AttributeName<T, Names...>::isIdentifier,
        "the name of an attribute or a parameter is an identifier: letters, digits and _, and no digit first");
    return Asserted();
}

template <class T, class... Texts> constexpr bool hasGoodName() {
    constexpr bool good = (isIdentifier(Texts::value) && ...);
    if constexpr (good)
        return true;
    else
        return isAsserted<decltype(checkName<T, ShownText<Texts>...>())> && false;
}
template <class T, std::size_t I> constexpr bool hasGoodNames() {
    using Name = AttributeNameText<T, I>;
    if constexpr (!hasGoodName<T, Name>()) return false;
    return []<std::size_t... P>(std::index_sequence<P...>) {
        return (hasGoodName<T, Name, ParameterNameText<T, I, P>>() && ...);
    }
    (std::make_index_sequence<std::tuple_size_v<typename AttributeAt<T, I>::Parameters>>{});
}
template <class T> constexpr bool hasGoodNames() {
    bool good = true;
    forEachAttribute<T>([&](auto index) { good = hasGoodNames<T, decltype(index)::value>() && good; });
    return good;
}

// --- one type ---

template <class T> struct TypeInModule { static constexpr bool isDescribed = Described<T> || ScalarValue<T>; };
template <class T> constexpr auto checkTypeInModule() {
    static_assert(TypeInModule<T>::isDescribed, "a type in VEL_MODULE needs a description()");
    return Asserted();
}

template <class T> struct ClassOfEntity { static constexpr bool hasItsOwnDescription = ownsDescription<T>(); };
template <class T> constexpr auto checkClassOfEntity() {
    static_assert(ClassOfEntity<T>::hasItsOwnDescription,
        "a class that derives from EntityOf needs a description() of its own: this one has that of its base");
    return Asserted();
}

template <class T> struct Entities {
    static constexpr bool haveDistinctNames = hasDistinctNames<T>();
    static constexpr bool deriveFromEntity = std::derived_from<T, Entity>;
    static constexpr bool haveNoFields = countOfKind<T>(AttributeKind::field) == 0;
    static constexpr bool isSound = haveDistinctNames && deriveFromEntity && haveNoFields;
};
template <class T> constexpr auto checkEntity() {
    static_assert(Entities<T>::haveDistinctNames, "each attribute needs a name of its own");
    static_assert(Entities<T>::deriveFromEntity, "an entity type derives from Vel::Entity");
    static_assert(Entities<T>::haveNoFields, "an entity has attributes, and no fields");
    return Asserted();
}

template <class T> struct Values {
    static constexpr std::size_t fields = countOfKind<T>(AttributeKind::field);
    static constexpr bool haveDistinctNames = hasDistinctNames<T>();
    static constexpr bool haveFieldsOnly = countOfKind<T>(AttributeKind::entityAttribute) == 0;
    static constexpr bool haveOneFieldAsNumbers = DescriptionOf<T>::form != Form::number || fields == 1;
    static constexpr bool haveFieldsOrForms =
        fields != 0 || (hasOption<T, OptionId::text> && hasOption<T, OptionId::stream>);
    static constexpr bool areRegular =
        std::default_initializable<T> && std::copy_constructible<T> && std::is_copy_assignable_v<T>;
    static constexpr bool haveTheirOrder = isOrderedOrSaysNothing<T>();
    static constexpr bool haveTheirOperators = canComputeAll<T>();
    static constexpr bool isSound = haveDistinctNames && haveFieldsOnly && haveOneFieldAsNumbers && haveFieldsOrForms &&
                                    areRegular && haveTheirOrder && haveTheirOperators;
};
template <class T> constexpr auto checkValue() {
    static_assert(Values<T>::haveDistinctNames, "each attribute needs a name of its own");
    static_assert(Values<T>::haveFieldsOnly, "a value has fields, and no attributes");
    static_assert(Values<T>::haveOneFieldAsNumbers, "a number has exactly one field");
    static_assert(
        Values<T>::haveFieldsOrForms, "a record without fields needs a text form and a stream form of its own");
    static_assert(Values<T>::areRegular, "a value can be made from nothing, copied and assigned");
    static_assert(Values<T>::haveTheirOrder, "an ordered type needs operator<");
    static_assert(Values<T>::haveTheirOperators, "arithmetic that names no function needs the type's own operator");
    return Asserted();
}

// Whether anything can be derived from T's description. If not, an assertion says why, and T causes no further errors.
template <class T> constexpr bool isSound() {
    if constexpr (!Described<T>)
        return isAsserted<decltype(checkTypeInModule<T>())> && ScalarValue<T>;
    else if constexpr (hasBrokenAttribute<T>())
        return false;
    else if constexpr (!ownsDescription<T>())
        return isAsserted<decltype(checkClassOfEntity<T>())> && false;
    else if constexpr (DescribedEntity<T>)
        return isAsserted<decltype(checkEntity<T>())> && Entities<T>::isSound && hasGoodNames<T>();
    else
        return isAsserted<decltype(checkValue<T>())> && Values<T>::isSound && hasGoodNames<T>();
}

}  // namespace Vel::Detail
