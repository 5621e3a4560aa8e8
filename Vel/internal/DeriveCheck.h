#pragma once

#include "Vel/GenericIf.h"

#include <concepts>

// What a description must hold for anything to be derived from it, with an error that says so.
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

template <class T> consteval bool checkDescription() {
    if constexpr (Described<T>) {
        static_assert(hasDistinctNames<T>(), "each attribute needs a name of its own");
        if constexpr (DescribedEntity<T>) {
            static_assert(std::derived_from<T, Entity>, "an entity type derives from Vel::Entity");
            static_assert(countOfKind<T>(AttributeKind::field) == 0, "an entity has attributes, and no fields");
        } else {
            constexpr std::size_t fields = countOfKind<T>(AttributeKind::field);
            static_assert(countOfKind<T>(AttributeKind::entityAttribute) == 0, "a value has fields, and no attributes");
            static_assert(DescriptionOf<T>::form != Form::number || fields == 1, "a number has exactly one field");
            static_assert(fields != 0 || (hasOption<T, OptionId::text> && hasOption<T, OptionId::stream>),
                "a record without fields needs a text form and a stream form of its own");
            static_assert(std::default_initializable<T> && std::copy_constructible<T> && std::is_copy_assignable_v<T>,
                "a value can be made from nothing, copied and assigned");
            static_assert(isOrderedOrSaysNothing<T>(), "an ordered type needs operator<");
        }
    }
    return true;
}

}  // namespace Vel::Detail
