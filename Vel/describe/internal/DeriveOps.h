#pragma once

#include "Vel/base/Ptr.h"
#include "Vel/describe/GenericIf.h"
#include "Vel/describe/Value.h"

#include <functional>
#include <string_view>
#include <tuple>
#include <utility>

// The operations of reflection on an attribute and on a value as a whole, derived from a description.
namespace Vel::Detail {

template <class T, class... Ts> constexpr U32 indexIn() {
    U32 index = 0;
    bool found = false;
    ((found = found || std::is_same_v<T, Ts>, index += found ? 0 : 1), ...);
    return index;
}

template <class T> constexpr std::string_view typeName() {
    static_assert(ScalarValue<T> || Described<T>, "the type of an attribute is a scalar, or describes itself");
    if constexpr (ScalarValue<T>)
        return Scalar<T>::name;
    else
        return descriptionOf<T>.name;
}

// --- attribute operations ---

template <class V, class W> void put(void* result, W&& value) {
    if (result) *static_cast<V*>(result) = std::forward<W>(value);
}

template <auto F, class Object, class... Arguments>
void invokeInto(void* result, Object& object, Arguments const&... arguments) {
    using Result = ResultOf<F>;
    auto const invoke = [&]() -> decltype(auto) {
        if constexpr (Signature<decltype(F)>::isStatic && std::is_invocable_v<decltype(F), Arguments const&...>)
            return std::invoke(F, arguments...);
        else
            return std::invoke(F, object, arguments...);
    };
    if constexpr (std::is_void_v<Result>)
        invoke();
    else
        put<Result>(result, invoke());
}

template <class A, class T>
AttributeResult collectionOp(void* result, T& object, AttributeOp op, void const* other, void const* arg) {
    using Key = typename A::Key;
    switch (op) {
    case AttributeOp::get:
        if constexpr (given<A::get>) {
            invokeInto<A::get>(result, object, *static_cast<Key const*>(other));
            return AttributeResult::done;
        }
        break;
    case AttributeOp::set:
        if constexpr (given<A::set>) {
            // Set takes only the key if the collection makes its members, and only the member if that knows its key.
            using Set = decltype(A::set);
            if constexpr (std::is_invocable_v<Set, T&, Key const&>)
                invokeInto<A::set>(nullptr, object, *static_cast<Key const*>(other));
            else if constexpr (std::is_invocable_v<Set, T&, typename A::Value const&>)
                invokeInto<A::set>(nullptr, object, *static_cast<typename A::Value const*>(arg));
            else
                invokeInto<A::set>(
                    nullptr, object, *static_cast<Key const*>(other), *static_cast<typename A::Value const*>(arg));
            return AttributeResult::done;
        }
        break;
    case AttributeOp::del:
        if constexpr (given<A::del>) {
            invokeInto<A::del>(result, object, *static_cast<Key const*>(other));
            return AttributeResult::done;
        }
        break;
    case AttributeOp::count:
        if constexpr (given<A::count>) {
            invokeInto<A::count>(result, object);
            return AttributeResult::done;
        }
        break;
    case AttributeOp::changeCounter:
        if constexpr (given<A::changeCounter>) {
            invokeInto<A::changeCounter>(result, object);
            return AttributeResult::done;
        }
        break;
    case AttributeOp::exists:
        if constexpr (given<A::exists>) {
            invokeInto<A::exists>(result, object, *static_cast<Key const*>(other));
            return AttributeResult::done;
        }
        break;
    default:
        break;
    }
    return AttributeResult::unsupported;
}

template <class A, class T> void get(void* result, T& object) {
    if constexpr (A::kind == AttributeKind::field)
        put<typename A::Value>(result, object.*A::member);
    else if constexpr (A::kind == AttributeKind::constant)
        put<typename A::Value>(result, A::getter());
    else if constexpr (A::kind == AttributeKind::derived || A::kind == AttributeKind::entityAttribute)
        put<typename A::Value>(result, std::invoke(A::getter, std::as_const(object)));
}

template <class A, class T> void set(T& object, void const* arg) {
    if constexpr ((opBit(AttributeOp::set) & A::ops) != 0) {
        auto const& value = *static_cast<typename A::Value const*>(arg);
        if constexpr (given<A::setter>)
            std::invoke(A::setter, object, value);
        else
            object.*A::member = value;
    }
}

template <class A, class T> void call(void* result, T& object, void const* arg) {
    if constexpr (A::kind == AttributeKind::method) {
        [[maybe_unused]] auto const* const arguments = static_cast<void const* const*>(arg);
        [&]<std::size_t... P>(std::index_sequence<P...>) {
            invokeInto<A::function>(
                result, object, *static_cast<std::tuple_element_t<P, typename A::Parameters> const*>(arguments[P])...);
        }
        (std::make_index_sequence<std::tuple_size_v<typename A::Parameters>>{});
    }
}

template <class T> T& objectAt(void* object) {
    if constexpr (std::is_base_of_v<PtrInterface, T>)
        return *static_cast<T*>(static_cast<PtrInterface*>(object));
    else
        return *static_cast<T*>(object);
}

template <class T, std::size_t I>
int attributeOp(void* result, void* object, AttributeOp op, void const* other, void const* arg) {
    using A = AttributeAt<T, I>;
    constexpr int unsupported = static_cast<int>(AttributeResult::unsupported);
    if (static_cast<U32>(op) > 21 || !(opBit(op) & A::ops)) return unsupported;
    T& value = objectAt<T>(object);
    if constexpr (A::kind == AttributeKind::collection)
        return static_cast<int>(collectionOp<A>(result, value, op, other, arg));
    else if (op == AttributeOp::get)
        get<A>(result, value);
    else if (op == AttributeOp::set)
        set<A>(value, arg);
    else if (op == AttributeOp::call)
        call<A>(result, value, arg);
    return static_cast<int>(AttributeResult::done);
}

// --- operations on a value as a whole ---

template <class T> bool truthOf(T const& value) {
    if constexpr (ScalarValue<T>) {
        return !(value == T());
    } else if constexpr (hasOption<T, OptionId::truth>) {
        return std::invoke(OptionOf<T, OptionId::truth>::function, value);
    } else {
        bool any = false;
        eachFieldValue(
            value, [&](auto const& field, auto) { any = any || !(field == std::remove_cvref_t<decltype(field)>()); });
        return any;
    }
}

template <class T>
concept EqualityByOperator = requires(T const& a, T const& b) {
    { a == b } -> std::convertible_to<bool>;
};

template <class T> constexpr bool offersEquality() {
    if constexpr (ScalarValue<T>)
        return true;
    else
        return hasOption<T, OptionId::equality> || EqualityByOperator<T>;
}
template <class T> constexpr bool offersLess() {
    if constexpr (ScalarValue<T>)
        return Scalar<T>::isOrdered;
    else
        return hasOption<T, OptionId::less> || hasOption<T, OptionId::ordered>;
}

template <class T> bool equalValues(T const& a, T const& b) {
    if constexpr (!Described<T>)
        return a == b;
    else if constexpr (hasOption<T, OptionId::equality>)
        return std::invoke(OptionOf<T, OptionId::equality>::function, a, b);
    else
        return a == b;
}
template <class T> bool lessValue(T const& a, T const& b) {
    if constexpr (!Described<T>)
        return a < b;
    else if constexpr (hasOption<T, OptionId::less>)
        return std::invoke(OptionOf<T, OptionId::less>::function, a, b);
    else
        return a < b;
}

// The arithmetic operations in a description's options, as bits by opBit().
template <class Options> struct ArithmeticOf;
template <class... O> struct ArithmeticOf<std::tuple<O...>> {
    template <class Option> static constexpr U32 bit() {
        if constexpr (Option::id == OptionId::arithmetic)
            return opBit(Option::op);
        else
            return 0;
    }
    static constexpr U32 ops = (U32(0) | ... | bit<O>());

    template <class Option, class T>
    static bool apply(void* result, T const& value, AttributeOp op, void const* other) {
        if constexpr (Option::id == OptionId::arithmetic) {
            if (op != Option::op) return false;
            if constexpr (Option::op == AttributeOp::complement)
                put<T>(result, std::invoke(Option::function, value));
            else
                put<T>(result, std::invoke(Option::function, value, *static_cast<T const*>(other)));
            return true;
        }
        return false;
    }
    template <class T>
    static bool applyAny([[maybe_unused]] void* result, [[maybe_unused]] T const& value,
        [[maybe_unused]] AttributeOp op, [[maybe_unused]] void const* other) {
        return (false || ... || apply<O>(result, value, op, other));
    }
};

// Returns the bits, by opBit(), of the operations that a value of T as a whole supports.
template <class T> constexpr U32 valueOps() {
    if constexpr (DescribedEntity<T>) {
        return 0;
    } else {
        U32 ops = opBit(AttributeOp::truth);
        if constexpr (offersEquality<T>()) ops |= opBit(AttributeOp::equal);
        if constexpr (offersLess<T>()) ops |= opBit(AttributeOp::less);
        if constexpr (Described<T>) ops |= ArithmeticOf<typename DescriptionOf<T>::OptionTypes>::ops;
        return ops;
    }
}

template <class T> int valueOp(void* result, void* object, AttributeOp op, void const* other) {
    if constexpr (!DescribedEntity<T>) {
        T const& value = *static_cast<T const*>(object);
        switch (op) {
        case AttributeOp::truth:
            put<bool>(result, truthOf(value));
            return 0;
        case AttributeOp::equal:
            if constexpr (offersEquality<T>()) {
                put<bool>(result, equalValues(value, *static_cast<T const*>(other)));
                return 0;
            }
            break;
        case AttributeOp::less:
            if constexpr (offersLess<T>()) {
                put<bool>(result, lessValue(value, *static_cast<T const*>(other)));
                return 0;
            }
            break;
        default:
            if constexpr (Described<T>)
                if (ArithmeticOf<typename DescriptionOf<T>::OptionTypes>::applyAny(result, value, op, other)) return 0;
        }
    }
    return static_cast<int>(AttributeResult::unsupported);
}

// --- entities ---

template <class T> VelType typeFunction() {
    if constexpr (std::is_void_v<T> || std::is_same_v<T, None>)
        return VelType();
    else
        return DefinedByVEL_MODULE<T>::type();
}
template <class E> VelType entityTypeFunction() { return DefinedByVEL_MODULE<std::remove_const_t<E>>::type(); }
template <class T> struct TypeFunction { static constexpr auto value = &typeFunction<T>; };
template <class E> struct TypeFunction<Ptr<E>> { static constexpr auto value = &entityTypeFunction<E>; };

}  // namespace Vel::Detail
