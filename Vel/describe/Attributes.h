#pragma once

#include "Vel/base/Types.h"
#include "Vel/describe/internal/DeriveAttributeType.h"

#include <array>
#include <string_view>
#include <tuple>
#include <type_traits>

// The kinds of attributes that a described type can have, and the functions by which a description lists them (see
// Describe.h).
namespace Vel {

// Operations of reflection on an attribute or, from `truth` on, on a value as a whole. The numbers are part of the
// interface.
enum class AttributeOp : U32 {
    get = 0,
    set = 1,
    del = 2,            // removes a key of a collection; its result is what Del returns
    count = 3,          // number of members of a collection
    changeCounter = 4,  // changes whenever the collection does
    exists = 5,         // whether a collection has a key
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

// Kind of an attribute. The numbers are part of the module tables.
enum class AttributeKind : U8 {
    field = 0,           // a stored part of the value, which is in its text and its stream form
    derived = 1,         // computed from the value
    constant = 2,        // the same for all values
    setter = 3,          // write-only
    method = 4,          // callable
    collection = 5,      // members that are accessed by key
    ctorParam = 6,       // a constructor's parameter; has no operation
    declared = 7,        // a name in the tables only; has no operation
    entityAttribute = 8  // a notifying attribute of an entity
};
inline constexpr std::size_t maxParameters = 6;

class String;

namespace Detail {

// The type by which reflection passes an argument. For a std::string_view parameter that is a String.
template <class A> struct ArgumentType { using Type = A; };
template <> struct ArgumentType<std::string_view> { using Type = String; };
template <class A> using Argument = typename ArgumentType<std::remove_cvref_t<A>>::Type;

template <class F> struct Signature;
template <class R, class... A> struct Signature<R (*)(A...)> {
    using Result = R;
    using Arguments = std::tuple<Argument<A>...>;
    static constexpr bool isStatic = true;
};
template <class R, class... A> struct Signature<R (*)(A...) noexcept> : Signature<R (*)(A...)> {};
#define VEL_MEMBER_SIGNATURE(QUALIFIERS)                                                                               \
    template <class R, class C, class... A> struct Signature<R (C::*)(A...) QUALIFIERS> {                              \
        using Result = R;                                                                                              \
        using Arguments = std::tuple<Argument<A>...>;                                                                  \
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

template <auto F> inline constexpr bool given = !std::is_same_v<std::remove_cv_t<decltype(F)>, None>;

// Result and arguments of a function that a description gives for an attribute. If it gives none: None, no arguments.
template <auto F> struct SignatureOf : Signature<decltype(F)> {};
template <auto F>
requires(!given<F>) struct SignatureOf<F> {
    using Result = None;
    using Arguments = std::tuple<>;
};
template <auto F> using ResultOf = std::remove_cvref_t<typename SignatureOf<F>::Result>;

}  // namespace Detail

// Each attribute type has its name and kind, the operations that it supports, the types of its value, its key and a
// call's result (void if there is none), and its parameters.
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

// How a collection is sent to replicas.
enum class Members : U8 {
    none = 0,        // the collection is not sent
    references = 1,  // sends the key and the member's id; the member is announced separately
    instances = 2,   // sends the key; the replica's collection makes the member from it
    values = 3       // sends the key and the value, which is no entity
};

// A collection that is streamed. Visit yields its members, as a range, or as a function that calls its argument with
// each. Of entities, an element is a Ptr to a member whose name is its key, or has `first` and `second`, or `key` and
// `value`. Of values, an element is a key, or has it as `first` or `key`. Adopt, for instances, inserts a member that
// was made elsewhere.
template <class A, Members How, auto VisitFunction, auto AdoptFunction> struct StreamedCollection : A {
    static constexpr Members members = How;
    static constexpr auto visit = VisitFunction;
    static constexpr auto adopt = AdoptFunction;
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

// Replaces an attribute for which the compiler has reported an error, so that the same mistake causes no further
// errors.
struct Broken : AttributeBase {
    using Value = void;
    static constexpr auto kind = AttributeKind::declared;
    static constexpr U32 ops = 0;
};
template <class A> inline constexpr bool isBroken = std::is_same_v<A, Broken>;

// Makes an attribute. Member is the member or function that the description gives for it; an error shows it.
template <class A, auto Member, class... Names> constexpr auto named(char const* name, Names... parameterNames) {
    constexpr std::size_t parameters = std::tuple_size_v<typename A::Parameters>;
    static_assert(sizeof...(Names) == parameters, "name every parameter of the function");
    static_assert(parameters <= maxParameters, "a method that reflection can call takes at most six parameters");
    if constexpr (sizeof...(Names) != parameters || parameters > maxParameters || !hasGoodTypes<Member, A>) {
        return Broken{{.name = name}};
    } else {
        A attribute{};
        attribute.name = name;
        attribute.parameterNames = {std::string_view(parameterNames)...};
        return attribute;
    }
}

}  // namespace Detail

// A stored field, which reflection reads and writes directly.
template <auto Member> constexpr auto field(char const* name) {
    return Detail::named<Field<Member, Detail::None{}, true>, Member>(name);
}
// A stored field whose reflective set calls SetterFunction.
template <auto Member, auto SetterFunction> constexpr auto checkedField(char const* name) {
    return Detail::named<Field<Member, SetterFunction, true>, Member>(name);
}
template <auto Member> constexpr auto readOnlyField(char const* name) {
    return Detail::named<Field<Member, Detail::None{}, false>, Member>(name);
}
// A computed attribute: Getter is called with the value. With SetterFunction it can also be set.
template <auto Getter, auto SetterFunction = Detail::None{}> constexpr auto derived(char const* name) {
    return Detail::named<Derived<Getter, SetterFunction>, Getter>(name);
}
// A constant: Getter is a function without arguments.
template <auto Getter> constexpr auto constant(char const* name) {
    return Detail::named<Constant<Getter>, Getter>(name);
}
// A write-only attribute.
template <auto Function> constexpr auto setter(char const* name) {
    return Detail::named<Setter<Function>, Function>(name);
}
// A member function, or a static one, with the names of its parameters.
template <auto Function, class... Names> constexpr auto method(char const* name, Names... parameterNames) {
    return Detail::named<Method<Function>, Function>(name, parameterNames...);
}
// A keyed collection. Pass Vel::none for functions that it does not have.
inline constexpr Detail::None none{};
template <class Key, class Value, auto Get = none, auto Set = none, auto Del = none, auto Count = none,
    auto ChangeCounter = none, auto Exists = none>
constexpr auto collection(char const* name) {
    return Detail::named<Collection<Key, Value, CollectionOps<Get, Set, Del, Count, ChangeCounter, Exists>>, Get>(name);
}
// A collection that is sent to replicas, which insert the members that they receive. It needs Set and Del.
template <auto Visit, class A> constexpr auto references(A collection) {
    if constexpr (Detail::isBroken<A>)
        return collection;
    else
        return StreamedCollection<A, Members::references, Visit, Detail::None{}>{collection};
}
// The same, but the replica's collection makes the members itself: Set takes only the key.
template <auto Visit, auto Adopt, class A> constexpr auto instances(A collection) {
    if constexpr (Detail::isBroken<A>)
        return collection;
    else
        return StreamedCollection<A, Members::instances, Visit, Adopt>{collection};
}
// A collection of values that is sent to replicas. It needs Get, Set, Del and Exists. Set and Del must call
// velNotify<"name">(key) for each key that they set to another value or delete.
template <auto Visit, class A> constexpr auto values(A collection) {
    if constexpr (Detail::isBroken<A>) {
        return collection;
    } else {
        static_assert(
            Detail::given<A::get> && Detail::given<A::set> && Detail::given<A::del> && Detail::given<A::exists>,
            "a collection of values that travels needs Get, Set, Del and Exists");
        return StreamedCollection<A, Members::values, Visit, Detail::None{}>{collection};
    }
}
// A parameter of the constructor that is listed among the attributes.
template <class Value> constexpr auto ctorParam(char const* name) {
    return Detail::named<Declared<Value, AttributeKind::ctorParam>, Detail::None{}>(name);
}
// A name in the tables that has no operation.
constexpr auto declared(char const* name) {
    return Detail::named<Declared<void, AttributeKind::declared>, Detail::None{}>(name);
}
// An attribute of an entity that notifies observers: the member that stores it, its accessor and its mutator.
template <auto Member, auto Getter, auto SetterFunction = Detail::None{}> constexpr auto attribute(char const* name) {
    return Detail::named<EntityAttribute<Member, Getter, SetterFunction>, Member>(name);
}

// A collection that reflection can walk. Begin returns an iterator that converts to false at the end, and has key(),
// and next() or ++. Erase, if given, is called with an iterator and removes its member.
template <class A, auto BeginFunction, auto EraseFunction> struct IteratedCollection : A {
    static constexpr auto begin = BeginFunction;
    static constexpr auto erase = EraseFunction;
};
template <auto Begin, auto Erase = none, class A> constexpr auto iterated(A collection) {
    if constexpr (Detail::isBroken<A>)
        return collection;
    else
        return IteratedCollection<A, Begin, Erase>{collection};
}

}  // namespace Vel
