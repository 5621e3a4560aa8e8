#pragma once

#include "Vel/describe/GenericIf.h"
#include "Vel/describe/internal/DeriveCheck.h"
#include "Vel/describe/internal/DeriveGlue.h"
#include "Vel/describe/internal/Records.h"

#include <algorithm>

// A module's table and fingerprint, derived from its types' descriptions at compile time.
namespace Vel::Detail {

// --- names ---

// A sorted list of names without duplicates, in which each name ends with a NUL, and the offsets of the names in it.
template <std::size_t Capacity> struct NameList {
    std::array<std::string_view, Capacity> names{};
    std::size_t count = 0;

    constexpr void add(std::string_view name) {
        std::size_t at = 0;
        while (at < count && names[at] < name) ++at;
        if (at < count && names[at] == name) return;
        for (std::size_t i = count; i > at; --i) names[i] = names[i - 1];
        names[at] = name;
        ++count;
    }
    constexpr std::size_t size() const {
        std::size_t sum = 0;
        for (std::size_t i = 0; i < count; ++i) sum += names[i].size() + 1;
        return sum;
    }
    constexpr std::size_t offset(std::string_view name) const {
        std::size_t sum = 0;
        for (std::size_t i = 0; i < count && names[i] != name; ++i) sum += names[i].size() + 1;
        return sum;
    }
    constexpr U16 typeOffset(std::string_view name) const {
        return name.empty() ? noName : static_cast<U16>(offset(name));
    }
};

// Name of the type V in records; empty if there is no type.
template <class V> struct TypeNameOf { static constexpr std::string_view value = typeName<V>(); };
template <> struct TypeNameOf<void> { static constexpr std::string_view value{}; };
template <> struct TypeNameOf<None> { static constexpr std::string_view value{}; };
template <class E> struct TypeNameOf<Ptr<E>> : TypeNameOf<std::remove_const_t<E>> {};

template <class A, class F> constexpr void forEachParameter(A const& attribute, F&& f) {
    [&]<std::size_t... P>(std::index_sequence<P...>) {
        (f(attribute.parameterNames[P], TypeNameOf<std::tuple_element_t<P, typename A::Parameters>>::value), ...);
    }
    (std::make_index_sequence<std::tuple_size_v<typename A::Parameters>>{});
}

// Whether the tables have the type of an attribute of this kind. They have the types of which values consist or which
// they take, and not the types of computed results.
constexpr bool namesItsType(AttributeKind kind) {
    return kind != AttributeKind::derived && kind != AttributeKind::constant;
}
template <class A> constexpr std::string_view listedTypeName() {
    return namesItsType(A::kind) ? TypeNameOf<typename A::Value>::value : std::string_view();
}

template <class T, class F> constexpr void forEachAttributeOf(F&& f) {
    if constexpr (Described<T>) {
        [&]<std::size_t... I>(std::index_sequence<I...>) {
            (f(std::get<I>(descriptionOf<T>.attributes), std::integral_constant<std::size_t, I>()), ...);
        }
        (std::make_index_sequence<attributeCount<T>>{});
    }
}

// Sizes of the table of a module that describes these types.
template <class... Ts> struct ModuleSizes {
    static constexpr std::size_t countAttributes() {
        std::size_t count = 0;
        (forEachAttributeOf<Ts>([&](auto const&, auto) { ++count; }), ...);
        return count;
    }
    static constexpr std::size_t countParameters() {
        std::size_t count = 0;
        (forEachAttributeOf<Ts>([&](auto const& a, auto) {
            count += std::tuple_size_v<typename std::remove_cvref_t<decltype(a)>::Parameters>;
        }),
            ...);
        return count;
    }
    static constexpr std::size_t types = sizeof...(Ts);
    static constexpr std::size_t attributes = countAttributes();
    static constexpr std::size_t parameters = countParameters();

    static constexpr auto listTypeNames() {
        NameList<2 * types + 2 * attributes + parameters> list;
        auto const add = [&](std::string_view name) {
            if (!name.empty()) list.add(name);
        };
        (add(typeName<Ts>()), ...);
        (add(TypeNameOf<BaseType<Ts>>::value), ...);
        (forEachAttributeOf<Ts>([&](auto const& a, auto) {
            using A = std::remove_cvref_t<decltype(a)>;
            add(listedTypeName<A>());
            add(TypeNameOf<typename A::Key>::value);
            forEachParameter(a, [&](std::string_view, std::string_view type) { add(type); });
        }),
            ...);
        return list;
    }
    static constexpr auto listAttributeNames() {
        NameList<1 + attributes + parameters> list;
        list.add("");
        (forEachAttributeOf<Ts>([&](auto const& a, auto) {
            list.add(a.name);
            forEachParameter(a, [&](std::string_view name, std::string_view) { list.add(name); });
        }),
            ...);
        return list;
    }
    static constexpr std::size_t typeNamesSize = listTypeNames().size();
    static constexpr std::size_t attributeNamesSize = listAttributeNames().size();
    static_assert(types < 0x10000 && attributes < 0x10000 && parameters < 0x10000 && typeNamesSize < 0xFFFF &&
                      attributeNamesSize < 0x10000,
        "too much for one module; divide it");
};

// --- the table ---

template <class... Ts> struct ModuleTable {
    using Sizes = ModuleSizes<Ts...>;
    ModuleHeader header;
    TypeRecord types[Sizes::types];
    AttributeRecord attributes[std::max<std::size_t>(Sizes::attributes, 1)];
    ParameterRecord parameters[std::max<std::size_t>(Sizes::parameters, 1)];
    char typeNames[Sizes::typeNamesSize];
    char attributeNames[Sizes::attributeNamesSize];
    char name[64];
    TypeGlue const* glue[Sizes::types];
};

template <class T> constexpr std::size_t leastWidth() {
    if constexpr (ScalarValue<T>) {
        return Scalar<T>::width;
    } else if constexpr (!DescribedValue<T>) {
        return 0;
    } else {
        std::size_t sum = 0;
        if constexpr (!hasOption<T, OptionId::stream>)
            forEachField<T>([&](auto index) { sum += leastWidth<FieldType<T, decltype(index)::value>>(); });
        return sum;
    }
}

template <class T> constexpr U16 typeFlags() {
    unsigned flags = fixedWidth<T>() != 0 ? TypeFlag::fixedSize : 0;
    if constexpr (ScalarValue<T>) {
        flags |= TypeFlag::scalar;
        if constexpr (Scalar<T>::isHashable) flags |= TypeFlag::hashable;
    } else {
        if constexpr (DescribedEntity<T>) flags |= TypeFlag::entity;
        if constexpr (DescriptionOf<T>::form == Form::number) flags |= TypeFlag::number;
        if constexpr (hasOption<T, OptionId::text>) flags |= TypeFlag::ownText;
        if constexpr (hasOption<T, OptionId::stream>) flags |= TypeFlag::ownStream;
        if constexpr (hasOption<T, OptionId::hash>) flags |= TypeFlag::hashable;
        if constexpr (std::is_polymorphic_v<T>) flags |= TypeFlag::polymorphic;
        if constexpr (std::is_abstract_v<T>) flags |= TypeFlag::abstract;
    }
    return static_cast<U16>(flags);
}

template <class A> constexpr U16 attributeWidth() {
    if constexpr (A::kind == AttributeKind::field || A::kind == AttributeKind::entityAttribute)
        return static_cast<U16>(leastWidth<typename A::Value>());
    else
        return 0;
}

template <class T, class Table, class TypeNames, class AttributeNames>
constexpr void fillType(Table& table, U16 typeIndex, U16& attribute, U16& parameter, TypeNames const& typeNames,
    AttributeNames const& attributeNames) {
    U16 const first = attribute;
    forEachAttributeOf<T>([&](auto const& a, auto index) {
        using A = std::remove_cvref_t<decltype(a)>;
        auto const name = static_cast<U32>(attributeNames.offset(a.name));
        AttributeRecord& record = table.attributes[attribute++];
        record.id = firstAttributeId<T>() + static_cast<U32>(decltype(index)::value);
        record.nameLowKindOps = (name & 15) << 28 | U32(A::kind) << 22 | A::ops;
        record.nameHigh = static_cast<U16>(name >> 4);
        record.valueType = typeNames.typeOffset(listedTypeName<A>());
        record.keyType = typeNames.typeOffset(TypeNameOf<typename A::Key>::value);
        record.firstParameter = parameter;
        forEachParameter(a, [&](std::string_view parameterName, std::string_view parameterType) {
            table.parameters[parameter++] = {
                static_cast<U16>(attributeNames.offset(parameterName)), typeNames.typeOffset(parameterType)};
        });
        record.parameterCount = static_cast<U16>(parameter - record.firstParameter);
        record.encodedSize = attributeWidth<A>();
    });
    table.types[typeIndex] = {typeNames.typeOffset(typeName<T>()), typeNames.typeOffset(TypeNameOf<BaseType<T>>::value),
        typeFlags<T>(), static_cast<U16>(valueOps<T>() >> static_cast<U32>(AttributeOp::truth)),
        static_cast<U16>(leastWidth<T>()), static_cast<U16>(std::min<std::size_t>(sizeof(T), 0xFFFF)), first,
        static_cast<U16>(attribute - first)};
    table.glue[typeIndex] = &GlueOf<T>::value;
}

template <class List> constexpr void writeNames(char* to, List const& list) {
    for (std::size_t i = 0; i < list.count; ++i) {
        to = std::copy(list.names[i].begin(), list.names[i].end(), to);
        *to++ = '\0';
    }
}

template <class... Ts> constexpr U64 moduleFingerprint(std::string_view name);

template <class... Ts> consteval ModuleTable<Ts...> filledTable(std::string_view name) {
    using Table = ModuleTable<Ts...>;
    using Sizes = ModuleSizes<Ts...>;
    constexpr auto typeNames = Sizes::listTypeNames();
    constexpr auto attributeNames = Sizes::listAttributeNames();
    Table table{};
    U16 type = 0;
    U16 attribute = 0;
    U16 parameter = 0;
    (fillType<Ts>(table, type++, attribute, parameter, typeNames, attributeNames), ...);
    writeNames(table.typeNames, typeNames);
    writeNames(table.attributeNames, attributeNames);
    std::copy(name.begin(), name.end(), table.name);
    ModuleHeader& header = table.header;
    std::copy(std::begin(moduleMagic), std::end(moduleMagic), header.magic);
    header.fingerprint = moduleFingerprint<Ts...>(name);
    header.size = sizeof(Table);
    header.typeCount = Sizes::types;
    header.attributeCount = Sizes::attributes;
    header.parameterCount = Sizes::parameters;
    header.typeNamesSize = Sizes::typeNamesSize;
    header.attributeNamesSize = Sizes::attributeNamesSize;
    header.nameSize = static_cast<U16>(name.size() + 1);
    header.types = offsetof(Table, types);
    header.attributes = offsetof(Table, attributes);
    header.parameters = offsetof(Table, parameters);
    header.typeNames = offsetof(Table, typeNames);
    header.attributeNames = offsetof(Table, attributeNames);
    header.name = offsetof(Table, name);
    header.glue = offsetof(Table, glue);
    return table;
}

template <class... Ts> constexpr bool haveDistinctNames() {
    std::array<std::string_view, sizeof...(Ts)> names{typeName<Ts>()...};
    std::sort(names.begin(), names.end());
    return std::adjacent_find(names.begin(), names.end()) == names.end();
}

template <class... Ts> struct TypesOfModule {
    static constexpr bool areSound = (std::size_t(isSound<Ts>()) + ...) == sizeof...(Ts);
    static constexpr bool haveDistinctNames = [] {
        if constexpr (areSound)
            return Detail::haveDistinctNames<Ts...>();
        else
            return true;
    }();
    static constexpr bool good = areSound && haveDistinctNames;
};
// The first check of VEL_MODULE.
template <class... Ts> constexpr auto checkModule() {
    static_assert(TypesOfModule<Ts...>::haveDistinctNames, "each type of a module needs a name of its own");
    return Asserted();
}

// The table of a module. A module for which an error was reported gets a dummy table, so that there is no further
// error.
template <class... Ts>
using ModuleTableOf = std::conditional_t<TypesOfModule<Ts...>::good, ModuleTable<Ts...>, ModuleTable<bool>>;
template <class... Ts> consteval ModuleTableOf<Ts...> moduleTable(std::string_view name) {
    if constexpr (TypesOfModule<Ts...>::good)
        return filledTable<Ts...>(name);
    else
        return {};
}

}  // namespace Vel::Detail
