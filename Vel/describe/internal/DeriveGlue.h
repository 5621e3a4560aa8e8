#pragma once

#include "Vel/describe/GenericIf.h"
#include "Vel/describe/internal/DeriveOps.h"
#include "Vel/describe/internal/DeriveText.h"

#include <new>

// The functions by which reflection accesses a type, and DefinedByVEL_MODULE, derived from a description.
namespace Vel::Detail {

template <class T>
int genericIfAttributeOp(void* result, void* object, VelAttr attr, AttributeOp op, void const* other, void const* arg) {
    if (!attr) return valueOp<T>(result, object, op, other);
    if constexpr (Described<T>) {
        using Function = int (*)(void*, void*, AttributeOp, void const*, void const*);
        static constexpr auto functions = []<std::size_t... I>(std::index_sequence<I...>) {
            return std::array<Function, sizeof...(I)>{&attributeOp<T, I>...};
        }
        (std::make_index_sequence<attributeCount<T>>{});
        AttributeId const id = attr.attributeId();
        std::size_t const index = id - firstAttributeId<T>();
        if (index < functions.size()) return functions[index](result, object, op, other, arg);
        if constexpr (!std::is_void_v<BaseType<T>>)
            if (id < firstAttributeId<T>())
                return genericIfAttributeOp<BaseType<T>>(result, object, attr, op, other, arg);
    }
    return static_cast<int>(AttributeResult::unknown);
}

template <class T> void genericIfConstruct(void* dst, void const* src) {
    if constexpr (std::is_copy_constructible_v<T> && std::is_default_constructible_v<T>) {
        if (src)
            new (dst) T(*static_cast<T const*>(src));
        else
            new (dst) T();
    }
}

template <class T, class Arguments> void constructFrom(void* dst, void const* const* arguments) {
    [&]<std::size_t... I>(std::index_sequence<I...>) {
        new (dst) T(*static_cast<std::tuple_element_t<I, Arguments> const*>(arguments[I])...);
    }
    (std::make_index_sequence<std::tuple_size_v<Arguments>>{});
}

template <class T> struct NumberField;
template <class T>
requires(DescriptionOf<T>::form == Form::number) struct NumberField<T> {
    template <std::size_t... I> static auto pick(std::index_sequence<I...>) {
        return std::tuple_cat(
            std::conditional_t<isField<T, I>, std::tuple<typename AttributeAt<T, I>::Value>, std::tuple<>>()...);
    }
    using Arguments = decltype(pick(std::make_index_sequence<attributeCount<T>>{}));
};

template <class T> void genericIfConstructFromCtorArgs(void* dst, void const* const* arguments) {
    if constexpr (ScalarValue<T>)
        constructFrom<T, std::tuple<T>>(dst, arguments);
    else if constexpr (hasOption<T, OptionId::constructor>)
        constructFrom<T, typename OptionOf<T, OptionId::constructor>::Arguments>(dst, arguments);
    else if constexpr (DescriptionOf<T>::form == Form::number)
        constructFrom<T, typename NumberField<T>::Arguments>(dst, arguments);
    else
        new (dst) T();
}

template <class T> void genericIfDestruct(void* value) { static_cast<T*>(value)->~T(); }

template <class T> String genericIfStrRep(void const* value, VelType) {
    StrepOut out;
    DefinedByVEL_MODULE<T>::print(out, objectAt<T>(const_cast<void*>(value)));
    return out.str();
}

template <class T> void genericIfTextToValue(void* dst, std::string_view text, VelType) {
    *static_cast<T*>(dst) = strepToValue<T>(text);
}
template <class T> void genericIfStrepToValue(void* dst, String const& text, VelType type) {
    genericIfTextToValue<T>(dst, text.view(), type);
}
template <class T> std::to_chars_result genericIfToChars(char* first, char* last, void const* value) {
    return DefinedByVEL_MODULE<T>::toChars(first, last, *static_cast<T const*>(value));
}

template <class T> U32 genericIfHash(void const* value, VelType type) {
    if constexpr (ScalarValue<T>) {
        if constexpr (Scalar<T>::isHashable) return Hash(0).hashMix<sizeof(T)>(*static_cast<T const*>(value)).result();
    } else if constexpr (hasOption<T, OptionId::hash>) {
        return std::invoke(OptionOf<T, OptionId::hash>::function, *static_cast<T const*>(value), U32(0));
    }
    GenericIfImpl::throwUnhashableException(type);
}

template <class T> void genericWrite(NboAttrLog::Out& out, void const* value) { out << *static_cast<T const*>(value); }
template <class T> void genericRead(void* dst, NboAttrLog::In& in) { *static_cast<T*>(dst) = nextItem<T>(in); }
template <class T> std::size_t genericAttrLogSize(void const* value) {
    return attrLogSize(static_cast<T const*>(value));
}

template <class T>
__attribute__((visibility("hidden"))) inline constinit AllocTrackTypeInfo allocTrack{typeName<T>().data()};

template <class T, std::size_t I> struct ParameterTypes {
    using Parameters = typename AttributeAt<T, I>::Parameters;
    static constexpr auto value = []<std::size_t... P>(std::index_sequence<P...>) {
        return std::array<VelType (*)(), sizeof...(P) + 1>{
            TypeFunction<std::tuple_element_t<P, Parameters>>::value..., nullptr};
    }
    (std::make_index_sequence<std::tuple_size_v<Parameters>>{});
};

template <class T, class A> class CollectionIteratorOf final : public CollectionIterator {
public:
    explicit CollectionIteratorOf(T& object) : object_(object), at_(std::invoke(A::begin, object)) {}

    bool exists() const override { return bool(at_); }
    void key(void* result) const override { *static_cast<typename A::Key*>(result) = at_.key(); }
    void object(void* result) const override { invokeInto<A::get>(result, object_, typename A::Key(at_.key())); }
    void next() override {
        if constexpr (requires { at_.next(); })
            at_.next();
        else
            ++at_;
    }
    bool del() override {
        if constexpr (given<A::erase>) std::invoke(A::erase, object_, at_);
        return given<A::erase>;
    }

private:
    T& object_;
    std::invoke_result_t<decltype(A::begin), T&> at_;
};

template <class T, class A> constexpr auto iterateFunction() -> std::unique_ptr<CollectionIterator> (*)(void*) {
    if constexpr (requires { A::begin; })
        return [](void* object) -> std::unique_ptr<CollectionIterator> {
            return std::make_unique<CollectionIteratorOf<T, A>>(objectAt<T>(object));
        };
    else
        return nullptr;
}

template <class T> struct __attribute__((visibility("hidden"))) AttributeGluesOf {
    static constexpr auto value = []<std::size_t... I>(std::index_sequence<I...>) {
        return std::array<AttributeGlue, sizeof...(I) + 1>{
            AttributeGlue{TypeFunction<typename AttributeAt<T, I>::Value>::value,
                TypeFunction<typename AttributeAt<T, I>::Key>::value,
                TypeFunction<typename AttributeAt<T, I>::Result>::value, ParameterTypes<T, I>::value.data(),
                iterateFunction<T, AttributeAt<T, I>>()}...,
            AttributeGlue{}};
    }
    (std::make_index_sequence<attributeCount<T>>{});
};

template <class T> constexpr AttributeGlue const* attributeGlues() {
    if constexpr (Described<T>)
        return AttributeGluesOf<T>::value.data();
    else
        return nullptr;
}

// Defined in DeriveFingerprint.h.
template <class T> constexpr std::string_view typeSpelling();
// Defined in DeriveStream.h.
template <class T> StreamTable const& streamTable();

template <class T> struct __attribute__((visibility("hidden"))) GlueOf {
    static constexpr TypeGlue make() {
        TypeGlue glue{};
        glue.size = sizeof(T);
        glue.alignment = alignof(T);
        glue.base = TypeFunction<BaseType<T>>::value;
        glue.attributes = attributeGlues<T>();
        glue.spelling = typeSpelling<T>();
        glue.genericIfAttributeOp = &genericIfAttributeOp<T>;
        glue.genericIfStrRep = &genericIfStrRep<T>;
        glue.genericIfVoidPtrIs = &GenericIfImpl::genericIfVoidPtrIs;
        if constexpr (DescribedEntity<T>) {
            if constexpr (requires { &T::velNewEntity; }) glue.newEntity = &T::velNewEntity;
            glue.allocTrack = &allocTrack<T>;
            glue.stream = &streamTable<T>;
        } else {
            glue.genericIfConstruct = &genericIfConstruct<T>;
            glue.genericIfConstructFromCtorArgs = &genericIfConstructFromCtorArgs<T>;
            glue.genericIfDestruct = &genericIfDestruct<T>;
            glue.genericIfStrepToValue = &genericIfStrepToValue<T>;
            glue.genericIfTextToValue = &genericIfTextToValue<T>;
            glue.genericIfToChars = &genericIfToChars<T>;
            glue.genericIfHash = &genericIfHash<T>;
            glue.write = &genericWrite<T>;
            glue.read = &genericRead<T>;
            glue.attrLogSize = &genericAttrLogSize<T>;
        }
        return glue;
    }
    static constexpr TypeGlue value = make();
};

}  // namespace Vel::Detail

namespace Vel {

template <class T> void DefinedByVEL_MODULE<T>::print(StrepOut& out, T const& value) {
    if constexpr (DescribedEntity<T>)
        value.velPrint(out);
    else if constexpr (DescribedValue<T> || ScalarValue<T>)
        Detail::printValue(out, value);
}

template <class T>
std::to_chars_result DefinedByVEL_MODULE<T>::toChars(
    [[maybe_unused]] char* first, char* last, [[maybe_unused]] T const& value) {
    if constexpr (DescribedValue<T> || ScalarValue<T>)
        return Detail::valueToChars(first, last, value);
    else
        return {last, std::errc::value_too_large};
}

template <class T> void DefinedByVEL_MODULE<T>::print(std::ostream& out, T const& value) {
    if constexpr (Described<T>) {
        if constexpr (DescriptionOf<T>::form == Form::number && !hasOption<T, OptionId::text>) {
            // The unary plus makes the stream write an 8-bit number as a number, and not as a character.
            Detail::eachFieldValue(value, [&](auto const& field, auto) { out << +field; });
            return;
        }
    }
    StrepOut text;
    print(text, value);
    out << text.view();
}

template <class T>
void DefinedByVEL_MODULE<T>::parse(T& value, String::IteratorConst& it, String::IteratorConst const& end) {
    if constexpr (!DescribedValue<T> && !ScalarValue<T>)
        GenericIfImpl::throwTypeException(type());
    else if constexpr (ScalarValue<T>)
        value = sequenceToValue(it, end, static_cast<T*>(nullptr));
    else if constexpr (hasOption<T, OptionId::text>)
        value = OptionOf<T, OptionId::text>::parse(it, end, static_cast<T*>(nullptr));
    else
        Detail::parseValue<T>(value, it, end);
}

template <class T>
char const* DefinedByVEL_MODULE<T>::readFields(
    [[maybe_unused]] void* fields, [[maybe_unused]] char const* from, [[maybe_unused]] char const* end) {
    if constexpr (DescribedValue<T>)
        if constexpr (Detail::hasFieldText<T>())
            return Detail::readText<T>(*static_cast<Detail::FieldTuple<T>*>(fields), from, end);
    return nullptr;
}

template <class T>
void DefinedByVEL_MODULE<T>::parseFields([[maybe_unused]] void* fields, [[maybe_unused]] String::IteratorConst& it,
    [[maybe_unused]] String::IteratorConst const& end) {
    if constexpr (DescribedValue<T>)
        if constexpr (Detail::hasFieldText<T>())
            Detail::parseValue<T>(*static_cast<Detail::FieldTuple<T>*>(fields), it, end);
}

}  // namespace Vel
