#pragma once

#include "Vel/base/Types.h"
#include "Vel/describe/Attributes.h"

#include <cstddef>
#include <functional>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

// The functions by which a type describes itself, once:
//
//     static constexpr auto description() {
//         return Vel::record("Mox::CountStat",
//             Vel::field<&CountStat::count_>("count"),                               // attribute 2
//             Vel::field<&CountStat::last_>("last"),                                 // 3
//             Vel::setter<&CountStat::updateIs>("update"),                           // 4
//             Vel::method<&CountStat::doUpdate>("doUpdate", "val", "timestamp"));    // 5
//     }
//
// From the description are derived: the text form and its parser, the stream form, the encoded size, equality and truth
// by reflection, the type and attribute records, and an entity's notifications. Attributes are numbered in the order in
// which they are given.
namespace Vel {

// --- whole-value options, given by description.with(...) ---

enum class OptionId { ordered, less, equality, truth, hash, constructor, arithmetic, text, stream, base };

namespace Detail {

template <OptionId Id> struct Option { static constexpr OptionId id = Id; };
template <OptionId Id, auto F> struct FunctionOption : Option<Id> { static constexpr auto function = F; };
template <class... A> struct ConstructorOption : Option<OptionId::constructor> { using Arguments = std::tuple<A...>; };
template <AttributeOp Op, auto F> struct ArithmeticOption : FunctionOption<OptionId::arithmetic, F> {
    static constexpr AttributeOp op = Op;
};
template <auto Print, auto Parse> struct TextOption : Option<OptionId::text> {
    static constexpr auto print = Print;
    static constexpr auto parse = Parse;
};
template <auto Write, auto Read, auto Size> struct StreamOption : Option<OptionId::stream> {
    static constexpr auto write = Write;
    static constexpr auto read = Read;
    static constexpr auto size = Size;
};
template <class B> struct BaseOption : Option<OptionId::base> { using Type = B; };

template <AttributeOp Op> constexpr auto operatorOf() {
    if constexpr (Op == AttributeOp::sum) return std::plus<>();
    if constexpr (Op == AttributeOp::difference) return std::minus<>();
    if constexpr (Op == AttributeOp::product) return std::multiplies<>();
    if constexpr (Op == AttributeOp::quotient) return std::divides<>();
    if constexpr (Op == AttributeOp::bitAnd) return std::bit_and<>();
    if constexpr (Op == AttributeOp::bitOr) return std::bit_or<>();
    if constexpr (Op == AttributeOp::bitXor) return std::bit_xor<>();
    if constexpr (Op == AttributeOp::complement) return std::bit_not<>();
}

}  // namespace Detail

// Reflection has the operation `less`, by operator<.
inline constexpr Detail::Option<OptionId::ordered> ordered{};
// Reflection has the operation `less`, by F: bool(T const&, T const&).
template <auto F> inline constexpr Detail::FunctionOption<OptionId::less, F> less{};
// Reflection tests equality by F: bool(T const&, T const&), instead of operator==.
template <auto F> inline constexpr Detail::FunctionOption<OptionId::equality, F> equality{};
// Reflection tests truth by F: bool(T const&). Without this a value is true if any field differs from its zero.
template <auto F> inline constexpr Detail::FunctionOption<OptionId::truth, F> truth{};
// The type is hashable, by F: U32(T const&, U32 seed).
template <auto F> inline constexpr Detail::FunctionOption<OptionId::hash, F> hashBy{};
// Reflection constructs the type with these arguments. Without this a number takes its value, and a record nothing.
template <class... A> inline constexpr Detail::ConstructorOption<A...> constructor{};
// Reflection has a value operation from `sum` to `complement`, by F: T(T const&, T const&), for the complement
// T(T const&). Without F it uses the type's own operator.
template <AttributeOp Op, auto F = Detail::operatorOf<Op>()>
inline constexpr Detail::ArithmeticOption<Op, F> arithmetic{};
// The type has its own text form. Print is String(T const&) or, which saves a String, void(StrepOut&, T const&). Parse
// is T(String::IteratorConst&, String::IteratorConst const&, T*).
template <auto Print, auto Parse> inline constexpr Detail::TextOption<Print, Parse> textBy{};
// The type has its own stream form. Write is void(Out&, T const&), Read is void(T&, In&), and Size, which returns the
// length in bytes, is std::size_t(T const&).
template <auto Write, auto Read, auto Size> inline constexpr Detail::StreamOption<Write, Read, Size> streamBy{};
// The described entity type from which this one derives. Not needed if that is Vel::Entity.
template <class B> inline constexpr Detail::BaseOption<B> base{};

// --- descriptions ---

enum class Form : U8 {
    record = 0,  // prints as Value('Name', ** {'field': ..., ...})
    number = 1,  // has one field, and prints as that field's value alone
    entity = 2   // an object of the directory tree, whose attributes notify observers
};

template <Form F, class Attributes, class... Options> struct Description {
    static constexpr Form form = F;
    static constexpr std::size_t attributeCount = std::tuple_size_v<Attributes>;
    using AttributeTypes = Attributes;
    using OptionTypes = std::tuple<Options...>;

    std::string_view name;
    Attributes attributes;

    template <class... More> constexpr Description<F, Attributes, Options..., More...> with(More...) const {
        return {name, attributes};
    }
};

template <class... A> constexpr Description<Form::record, std::tuple<A...>> record(char const* name, A... attributes) {
    return {name, {attributes...}};
}
template <class... A> constexpr Description<Form::number, std::tuple<A...>> number(char const* name, A... attributes) {
    return {name, {attributes...}};
}
template <class... A> constexpr Description<Form::entity, std::tuple<A...>> entity(char const* name, A... attributes) {
    return {name, {attributes...}};
}

// --- asking a description ---

// Hidden, like every variable template here: an exported one would be a process-wide unique symbol, and a library that
// has such a symbol cannot be unloaded.
template <class T> __attribute__((visibility("hidden"))) inline constexpr auto descriptionOf = T::description();

template <class T> using DescriptionOf = std::remove_cvref_t<decltype(T::description())>;

// Do not test these while the class is incomplete: the compiler would keep the wrong answer.
template <class T>
concept Described = requires {
    T::description();
};
template <class T>
concept DescribedValue = Described<T> &&(DescriptionOf<T>::form != Form::entity);
template <class T>
concept DescribedEntity = Described<T> &&(DescriptionOf<T>::form == Form::entity);

// Whether T has a description of its own, and not only the inherited one of its base class.
template <class T> constexpr bool ownsDescription() {
    if constexpr (requires { typename T::VelBase; })
        return descriptionOf<T>.name != descriptionOf<typename T::VelBase>.name;
    else
        return true;
}

template <class T> inline constexpr std::size_t attributeCount = DescriptionOf<T>::attributeCount;
template <class T, std::size_t I>
using AttributeAt = std::tuple_element_t<I, typename DescriptionOf<T>::AttributeTypes>;

// Whether the compiler has reported an error for one of T's attributes.
template <class T> constexpr bool hasBrokenAttribute() {
    return []<class... A>(std::type_identity<std::tuple<A...>>) { return (Detail::isBroken<A> || ...); }(
               std::type_identity<typename DescriptionOf<T>::AttributeTypes>());
}

// Calls f(std::integral_constant<std::size_t, I>) for the index I of every attribute, in order.
template <class T, class F> constexpr void forEachAttribute(F&& f) {
    [&]<std::size_t... I>(std::index_sequence<I...>) { (f(std::integral_constant<std::size_t, I>{}), ...); }
    (std::make_index_sequence<attributeCount<T>>{});
}
// The same for the stored fields only.
template <class T, std::size_t I> inline constexpr bool isField = AttributeAt<T, I>::kind == AttributeKind::field;
template <class T, class F> constexpr void forEachField(F&& f) {
    forEachAttribute<T>([&](auto index) {
        if constexpr (isField<T, decltype(index)::value>) f(index);
    });
}
template <class T, std::size_t I> using FieldType = typename AttributeAt<T, I>::Value;
template <class T, std::size_t I> constexpr std::string_view attributeName() {
    return std::get<I>(descriptionOf<T>.attributes).name;
}

namespace Detail {

template <OptionId Id, class Options> struct FindOption { using Type = None; };
template <OptionId Id, class O, class... Rest> struct FindOption<Id, std::tuple<O, Rest...>> {
    using Type = typename FindOption<Id, std::tuple<Rest...>>::Type;
};
template <OptionId Id, class O, class... Rest>
requires(O::id == Id) struct FindOption<Id, std::tuple<O, Rest...>> {
    using Type = O;
};

}  // namespace Detail

// The option of this id in T's description, or Detail::None.
template <class T, OptionId Id>
using OptionOf = typename Detail::FindOption<Id, typename DescriptionOf<T>::OptionTypes>::Type;
template <class T, OptionId Id> inline constexpr bool hasOption = !std::is_same_v<OptionOf<T, Id>, Detail::None>;

// --- numbers of attributes ---

class Entity;

namespace Detail {

// The base of an entity type: the one in its description, or else Entity. For Entity and for value types it is void.
template <class T> constexpr auto baseTypeOf() {
    if constexpr (!DescribedEntity<T>)
        return std::type_identity<void>();
    else if constexpr (hasOption<T, OptionId::base>)
        return std::type_identity<typename OptionOf<T, OptionId::base>::Type>();
    else if constexpr (!std::is_same_v<T, Entity>)
        return std::type_identity<Entity>();
    else
        return std::type_identity<void>();
}
template <class T> using BaseType = typename decltype(baseTypeOf<T>())::type;

// The number of T's first attribute. The attributes of an entity type are numbered after those of its base.
template <class T> constexpr AttributeId firstAttributeId() {
    if constexpr (!DescribedEntity<T>)
        return firstValueAttributeId;
    else if constexpr (std::is_void_v<BaseType<T>>)
        return firstEntityAttributeId;
    else
        return firstAttributeId<BaseType<T>>() + static_cast<AttributeId>(attributeCount<BaseType<T>>);
}

// Returns the number of the attribute of T or of its bases with this name. Returns 0, which is no attribute's number,
// if there is none.
template <class T> constexpr AttributeId findAttributeId(std::string_view name) {
    AttributeId id = 0;
    forEachAttribute<T>([&](auto index) {
        constexpr auto I = decltype(index)::value;
        if (attributeName<T, I>() == name) id = firstAttributeId<T>() + static_cast<AttributeId>(I);
    });
    if constexpr (!std::is_void_v<BaseType<T>>)
        if (id == 0) return findAttributeId<BaseType<T>>(name);
    return id;
}
// Not defined and not constexpr: the compiler's error shows this name if a program asks for an attribute that does not
// exist.
void theDescriptionListsNoAttributeOfThisName();

}  // namespace Detail

// Returns the number of the attribute of T or of its bases with this name: attributeId<CountStat>("last") is 3. Any
// other name does not compile. Call it after T's description; a function of T before that can call velNotify<"name">().
template <class T> consteval AttributeId attributeId(std::string_view name) {
    AttributeId const id = Detail::findAttributeId<T>(name);
    if (id == 0) Detail::theDescriptionListsNoAttributeOfThisName();
    return id;
}

}  // namespace Vel
