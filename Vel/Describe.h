#pragma once

#include "Vel/Hash.h"
#include "Vel/String.h"
#include "Vel/Types.h"

#include <array>
#include <concepts>
#include <functional>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

// The vocabulary in which a type describes itself, once:
//
//     static constexpr auto description() {
//         return Vel::record("Mox::CountStat",
//             Vel::field<&CountStat::count_>("count"),                               // attribute 2
//             Vel::field<&CountStat::last_>("last"),                                 // 3
//             Vel::setter<&CountStat::updateIs>("update"),                           // 4
//             Vel::method<&CountStat::doUpdate>("doUpdate", "val", "timestamp"));    // 5
//     }
//
// The text form and its parser, the stream form, the encoded size, equality and truth by reflection, the type and
// attribute records, and an entity's notifications all follow from it. Attributes are numbered in the order given.
namespace Vel {

// What can be asked of an attribute, or (from truth on) of a value as a whole. The numbers are part of the interface.
enum class AttributeOp : U32 {
    get = 0,
    set = 1,
    del = 2,            // removes a key of a collection; yields what was there
    count = 3,          // number of members of a collection
    changeCounter = 4,  // changes whenever the collection does
    exists = 5,         // whether a collection holds a key
    call = 10,
    truth = 11,
    equal = 12,
    less = 13,
    sum = 14,
    difference = 15,
    product = 16,
    quotient = 17,
    bitAnd = 18,
    bitOr = 19,
    bitXor = 20,
    complement = 21
};
constexpr U32 opBit(AttributeOp op) { return U32(1) << static_cast<U32>(op); }

// What an attribute is. The numbers are part of the module tables.
enum class AttributeKind : U8 {
    field = 0,           // a stored part of the value: in its text and its stream form
    derived = 1,         // computed from the value
    constant = 2,        //
    setter = 3,          // write-only
    method = 4,          // callable
    collection = 5,      // members reached by key
    ctorParam = 6,       // a constructor's parameter; answers no operation
    declared = 7,        // named in the tables only; answers no operation
    entityAttribute = 8  // a notifying attribute of an entity
};
inline constexpr std::size_t maxParameters = 6;

namespace Detail {

template <class F> struct Signature;
template <class R, class... A> struct Signature<R (*)(A...)> {
    using Result = R;
    using Arguments = std::tuple<std::remove_cvref_t<A>...>;
    static constexpr bool isStatic = true;
};
template <class R, class... A> struct Signature<R (*)(A...) noexcept> : Signature<R (*)(A...)> {};
#define VEL_MEMBER_SIGNATURE(QUALIFIERS)                                                                               \
    template <class R, class C, class... A> struct Signature<R (C::*)(A...) QUALIFIERS> {                              \
        using Result = R;                                                                                              \
        using Arguments = std::tuple<std::remove_cvref_t<A>...>;                                                       \
        static constexpr bool isStatic = false;                                                                        \
    };
VEL_MEMBER_SIGNATURE()
VEL_MEMBER_SIGNATURE(const)
VEL_MEMBER_SIGNATURE(&)
VEL_MEMBER_SIGNATURE(const&)
VEL_MEMBER_SIGNATURE(noexcept)
VEL_MEMBER_SIGNATURE(const noexcept)
VEL_MEMBER_SIGNATURE(&noexcept)
VEL_MEMBER_SIGNATURE(const& noexcept)
#undef VEL_MEMBER_SIGNATURE

template <class M> struct MemberType;
template <class C, class M> struct MemberType<M C::*> { using Type = M; };
template <auto Member> using MemberValue = typename MemberType<decltype(Member)>::Type;

struct None {};
template <auto F> inline constexpr bool given = !std::is_same_v<std::remove_cv_t<decltype(F)>, None>;

// Result and arguments of a function that an attribute names; of none, None and no arguments.
template <auto F> struct SignatureOf : Signature<decltype(F)> {};
template <auto F>
requires(!given<F>) struct SignatureOf<F> {
    using Result = None;
    using Arguments = std::tuple<>;
};
template <auto F> using ResultOf = std::remove_cvref_t<typename SignatureOf<F>::Result>;

}  // namespace Detail

// --- attributes ---

// Each attribute type says: its name and kind, which operations it answers, the type of its value, of its key and of a
// call's result (void: none), and its parameters.
namespace Detail {

struct AttributeBase {
    std::string_view name;
    using Key = void;
    using Result = void;
    using Parameters = std::tuple<>;
    std::array<std::string_view, maxParameters> parameterNames{};
};

}  // namespace Detail

template <auto Member, auto Setter, bool Writable> struct Field : Detail::AttributeBase {
    using Value = Detail::MemberValue<Member>;
    static constexpr auto kind = AttributeKind::field;
    static constexpr U32 ops = opBit(AttributeOp::get) | (Writable ? opBit(AttributeOp::set) : 0);
    static constexpr auto member = Member;
    static constexpr auto setter = Setter;
};

template <auto Getter, auto Setter> struct Derived : Detail::AttributeBase {
    using Value = Detail::ResultOf<Getter>;
    static constexpr auto kind = AttributeKind::derived;
    static constexpr U32 ops = opBit(AttributeOp::get) | (Detail::given<Setter> ? opBit(AttributeOp::set) : 0);
    static constexpr auto getter = Getter;
    static constexpr auto setter = Setter;
};

template <auto Getter> struct Constant : Detail::AttributeBase {
    using Value = Detail::ResultOf<Getter>;
    static constexpr auto kind = AttributeKind::constant;
    static constexpr U32 ops = opBit(AttributeOp::get);
    static constexpr auto getter = Getter;
};

template <auto Function> struct Setter : Detail::AttributeBase {
    using Value = std::tuple_element_t<0, typename Detail::SignatureOf<Function>::Arguments>;
    static constexpr auto kind = AttributeKind::setter;
    static constexpr U32 ops = opBit(AttributeOp::set);
    static constexpr auto setter = Function;
};

template <auto Function> struct Method : Detail::AttributeBase {
    using Value = void;
    using Result = Detail::ResultOf<Function>;
    using Parameters = typename Detail::SignatureOf<Function>::Arguments;
    static constexpr auto kind = AttributeKind::method;
    static constexpr U32 ops = opBit(AttributeOp::call);
    static constexpr auto function = Function;
};

// The operations of a keyed collection; each is a member or free function, or absent.
template <auto Get, auto Set, auto Del, auto Count, auto ChangeCounter, auto Exists> struct CollectionOps {};

template <class KeyType, class ValueType, class Ops> struct Collection;
template <class KeyType, class ValueType, auto Get, auto Set, auto Del, auto Count, auto ChangeCounter, auto Exists>
struct Collection<KeyType, ValueType, CollectionOps<Get, Set, Del, Count, ChangeCounter, Exists>>
    : Detail::AttributeBase {
    using Value = ValueType;
    using Key = KeyType;
    static constexpr auto kind = AttributeKind::collection;
    static constexpr U32 ops =
        (Detail::given<Get> ? opBit(AttributeOp::get) : 0) | (Detail::given<Set> ? opBit(AttributeOp::set) : 0) |
        (Detail::given<Del> ? opBit(AttributeOp::del) : 0) | (Detail::given<Count> ? opBit(AttributeOp::count) : 0) |
        (Detail::given<ChangeCounter> ? opBit(AttributeOp::changeCounter) : 0) |
        (Detail::given<Exists> ? opBit(AttributeOp::exists) : 0);
    static constexpr auto get = Get;
    static constexpr auto set = Set;
    static constexpr auto del = Del;
    static constexpr auto count = Count;
    static constexpr auto changeCounter = ChangeCounter;
    static constexpr auto exists = Exists;
};

template <class ValueType, AttributeKind Kind> struct Declared : Detail::AttributeBase {
    using Value = ValueType;
    static constexpr auto kind = Kind;
    static constexpr U32 ops = 0;
};

template <auto Member, auto Getter, auto Setter> struct EntityAttribute : Detail::AttributeBase {
    using Value = Detail::MemberValue<Member>;
    static constexpr auto kind = AttributeKind::entityAttribute;
    static constexpr U32 ops = opBit(AttributeOp::get) | (Detail::given<Setter> ? opBit(AttributeOp::set) : 0);
    static constexpr auto member = Member;
    static constexpr auto getter = Getter;
    static constexpr auto setter = Setter;
};

namespace Detail {

template <class A> constexpr A named(std::string_view name) {
    A attribute{};
    attribute.name = name;
    return attribute;
}
template <class A, class... Names> constexpr A named(std::string_view name, Names... parameterNames) {
    static_assert(
        sizeof...(Names) == std::tuple_size_v<typename A::Parameters>, "name every parameter of the function");
    static_assert(sizeof...(Names) <= maxParameters);
    A attribute{};
    attribute.name = name;
    attribute.parameterNames = {std::string_view(parameterNames)...};
    return attribute;
}

}  // namespace Detail

// A stored field, read and written as it is.
template <auto Member> constexpr auto field(char const* name) {
    return Detail::named<Field<Member, Detail::None{}, true>>(name);
}
// A stored field whose reflective set calls SetterFunction.
template <auto Member, auto SetterFunction> constexpr auto checkedField(char const* name) {
    return Detail::named<Field<Member, SetterFunction, true>>(name);
}
template <auto Member> constexpr auto readOnlyField(char const* name) {
    return Detail::named<Field<Member, Detail::None{}, false>>(name);
}
// A computed attribute: Getter takes the value; with SetterFunction it can be set too.
template <auto Getter, auto SetterFunction = Detail::None{}> constexpr auto derived(char const* name) {
    return Detail::named<Derived<Getter, SetterFunction>>(name);
}
// A constant: Getter is a function without arguments.
template <auto Getter> constexpr auto constant(char const* name) { return Detail::named<Constant<Getter>>(name); }
// A write-only attribute.
template <auto Function> constexpr auto setter(char const* name) { return Detail::named<Setter<Function>>(name); }
// A member function, or a static one, with the names of its parameters.
template <auto Function, class... Names> constexpr auto method(char const* name, Names... parameterNames) {
    return Detail::named<Method<Function>>(name, parameterNames...);
}
// A keyed collection. Functions that it lacks are Vel::none.
inline constexpr Detail::None none{};
template <class Key, class Value, auto Get = none, auto Set = none, auto Del = none, auto Count = none,
    auto ChangeCounter = none, auto Exists = none>
constexpr auto collection(char const* name) {
    return Detail::named<Collection<Key, Value, CollectionOps<Get, Set, Del, Count, ChangeCounter, Exists>>>(name);
}
// A parameter of the constructor that is listed among the attributes.
template <class Value> constexpr auto ctorParam(char const* name) {
    return Detail::named<Declared<Value, AttributeKind::ctorParam>>(name);
}
// A name in the tables whose every operation is refused.
constexpr auto declared(char const* name) { return Detail::named<Declared<void, AttributeKind::declared>>(name); }
// A notifying attribute of an entity: the member that stores it, its accessor and its mutator.
template <auto Member, auto Getter, auto SetterFunction = Detail::None{}> constexpr auto attribute(char const* name) {
    return Detail::named<EntityAttribute<Member, Getter, SetterFunction>>(name);
}

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

}  // namespace Detail

// Reflection offers less, which is operator<.
inline constexpr Detail::Option<OptionId::ordered> ordered{};
// Reflection offers less, which is F: bool(T const&, T const&).
template <auto F> inline constexpr Detail::FunctionOption<OptionId::less, F> less{};
// Reflective equality is F: bool(T const&, T const&), and not operator==.
template <auto F> inline constexpr Detail::FunctionOption<OptionId::equality, F> equality{};
// The truth test is F: bool(T const&), and not "any field differs from its zero".
template <auto F> inline constexpr Detail::FunctionOption<OptionId::truth, F> truth{};
// The type is hashable, by F: U32(T const&, U32 seed).
template <auto F> inline constexpr Detail::FunctionOption<OptionId::hash, F> hashBy{};
// Reflective construction takes these arguments. A number takes its value without being told, a record takes none.
template <class... A> inline constexpr Detail::ConstructorOption<A...> constructor{};
// A value operation from sum to complement: T(T const&, T const&), the complement T(T const&).
template <AttributeOp Op, auto F> inline constexpr Detail::ArithmeticOption<Op, F> arithmetic{};
// A text form of its own: String(T const&) and T(String::IteratorConst&, String::IteratorConst const&, T*).
template <auto Print, auto Parse> inline constexpr Detail::TextOption<Print, Parse> textBy{};
// A stream form of its own: void(Out&, T const&), void(T&, In&), and its length in bytes, std::size_t(T const&).
template <auto Write, auto Read, auto Size> inline constexpr Detail::StreamOption<Write, Read, Size> streamBy{};
// The entity type that this one derives from, when that is another described one.
template <class B> inline constexpr Detail::BaseOption<B> base{};

// --- descriptions ---

enum class Form : U8 {
    record = 0,  // prints as Value('Name', ** {'field': ..., ...})
    number = 1,  // one field; prints as its bare number
    entity = 2   // lives in the directory tree; its attributes notify
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

// Hidden, as every template variable here is: a variable exported from two libraries would tie them together for life.
template <class T> __attribute__((visibility("hidden"))) inline constexpr auto descriptionOf = T::description();

template <class T> using DescriptionOf = std::remove_cvref_t<decltype(T::description())>;

// Do not test these while the class is incomplete: the answer would stick.
template <class T>
concept Described = requires {
    T::description();
};
template <class T>
concept DescribedValue = Described<T> &&(DescriptionOf<T>::form != Form::entity);
template <class T>
concept DescribedEntity = Described<T> &&(DescriptionOf<T>::form == Form::entity);

template <class T> inline constexpr std::size_t attributeCount = DescriptionOf<T>::attributeCount;
template <class T, std::size_t I>
using AttributeAt = std::tuple_element_t<I, typename DescriptionOf<T>::AttributeTypes>;

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

// The option that T's description gives, or Detail::None.
template <class T, OptionId Id>
using OptionOf = typename Detail::FindOption<Id, typename DescriptionOf<T>::OptionTypes>::Type;
template <class T, OptionId Id> inline constexpr bool hasOption = !std::is_same_v<OptionOf<T, Id>, Detail::None>;

}  // namespace Vel
