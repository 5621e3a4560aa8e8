#pragma once

#include "Vel/describe/Describe.h"
#include "Vel/text/NboAttrLog.h"
#include "Vel/text/Scalar.h"

#include <array>
#include <string_view>
#include <tuple>
#include <utility>

// Writes and reads a described value's items in the attribute log. A value whose encoding always has the same length is
// written and read in one piece. If that fails, or if the length varies, it is read item by item, so that an error can
// name the attribute.
namespace Vel {

template <class T> void read(T& value, NboAttrLog::In& in);

namespace Detail {

// Returns the length of T's encoding in bytes, or 0 if it is not always the same.
template <class T> constexpr std::size_t fixedWidth() {
    if constexpr (ScalarValue<T>) {
        return Scalar<T>::hasFixedWidth ? Scalar<T>::width : 0;
    } else if constexpr (!DescribedValue<T>) {
        return 0;
    } else if constexpr (hasOption<T, OptionId::stream>) {
        return 0;
    } else {
        std::size_t sum = 0;
        bool fixed = true;
        forEachField<T>([&](auto index) {
            constexpr std::size_t width = fixedWidth<FieldType<T, decltype(index)::value>>();
            sum += width;
            fixed = fixed && width != 0;
        });
        return fixed ? sum : 0;
    }
}

template <class T> constexpr bool hasScalarsOnly() {
    bool only = true;
    forEachField<T>([&](auto index) { only = only && ScalarValue<FieldType<T, decltype(index)::value>>; });
    return only;
}

// Whether T's text is derived from its description, and its fields are scalars.
template <class T> constexpr bool hasFieldText() { return !hasOption<T, OptionId::text> && hasScalarsOnly<T>(); }

template <class T, class F> constexpr void eachFieldValue(T& value, F&& f) {
    forEachField<std::remove_const_t<T>>(
        [&](auto index) { f(value.*AttributeAt<std::remove_const_t<T>, decltype(index)::value>::member, index); });
}

template <class T> constexpr std::size_t fieldCount() {
    std::size_t count = 0;
    forEachField<T>([&](auto) { ++count; });
    return count;
}
// Returns the indexes of T's fields among its attributes.
template <class T> constexpr auto findFields() {
    std::array<std::size_t, fieldCount<T>()> indexes{};
    std::size_t count = 0;
    forEachField<T>([&](auto index) { indexes[count++] = index; });
    return indexes;
}
template <class T> __attribute__((visibility("hidden"))) inline constexpr auto fieldIndexes = findFields<T>();
template <class T> using FieldPlaces = std::make_index_sequence<fieldCount<T>()>;

// The values of T's fields without the object. What a function that is not inlined has read is passed in this form, and
// the caller stores it into its T. So the T's address is not passed on, and a T that is only copied elsewhere needs no
// memory. Were it filled in memory field by field and then copied in wider pieces, the copy would wait until all the
// stores have reached the cache.
template <class T, class Places = FieldPlaces<T>> struct FieldsOf;
template <class T, std::size_t... P> struct FieldsOf<T, std::index_sequence<P...>> {
    using Tuple = std::tuple<FieldType<T, fieldIndexes<T>[P]>...>;

    template <class F> static void each(Tuple& fields, F&& f) {
        (f(std::get<P>(fields), std::integral_constant<std::size_t, fieldIndexes<T>[P]>()), ...);
    }
    static void store(T& value, Tuple&& fields) {
        ((value.*AttributeAt<T, fieldIndexes<T>[P]>::member = std::move(std::get<P>(fields))), ...);
    }
};
template <class T> using FieldTuple = typename FieldsOf<T>::Tuple;

template <class T> inline U8* storeFixed(U8* to, T const& value) {
    if constexpr (ScalarValue<T>) {
        Scalar<T>::store(to, value);
        return to + Scalar<T>::width;
    } else {
        eachFieldValue(value, [&](auto const& field, auto) { to = storeFixed(to, field); });
        return to;
    }
}

// Reads what storeFixed() wrote. Sets `good` to false if there are bytes that storeFixed() never writes.
template <class T> inline U8 const* loadFixed(U8 const* from, T& value, bool& good) {
    if constexpr (ScalarValue<T>) {
        good = Scalar<T>::load(from, value) && good;
        return from + Scalar<T>::width;
    } else {
        eachFieldValue(value, [&](auto& field, auto) { from = loadFixed(from, field, good); });
        return from;
    }
}

// Whether T declares a constructor with these parameters. An aggregate declares none, even if its fields could be
// initialised from them.
template <class T, class... A>
inline constexpr bool hasConstructor = std::is_constructible_v<T, A...> && !std::is_aggregate_v<T>;

template <class T, class F> T defaultThen(F f) {
    T value{};
    f(value);
    return value;
}

template <class T> T nextItem(NboAttrLog::In& in);

[[noreturn]] VEL_API VEL_COLD void throwStreamExceptionNaming(
    StreamException const& error, std::string_view typeName, std::string_view attributeName);

template <class T, std::size_t I> FieldType<T, I> nextField(NboAttrLog::In& in) {
    try {
        return nextItem<FieldType<T, I>>(in);
    } catch (StreamException const& error) {
        throwStreamExceptionNaming(error, descriptionOf<T>.name, attributeName<T, I>());
    }
}
template <class T> void readByItems(T& value, NboAttrLog::In& in) {
    eachFieldValue(value, [&](auto& field, auto index) { field = nextField<T, decltype(index)::value>(in); });
}
// These two are not inlined, so that the code that reads a value in one piece stays short.
template <class T> VEL_COLD FieldTuple<T> fieldsByItemsCold(NboAttrLog::In& in) {
    return [&]<std::size_t... P>(std::index_sequence<P...>) {
        return FieldTuple<T>{nextField<T, fieldIndexes<T>[P]>(in)...};  // braces, so in this order
    }
    (FieldPlaces<T>());
}
// Says what is wrong with bytes from which loadFixed() could not read a T. REQUIRES: hasScalarsOnly<T>().
template <class T> [[noreturn]] VEL_COLD void failByItemsCold(NboAttrLog::In& in) {
    fieldsByItemsCold<T>(in);
    throw StreamException("bytes that were refused before", in.offset());  // not reached: an item has thrown
}

template <class T> T nextItem(NboAttrLog::In& in) {
    if constexpr (ScalarValue<T>)
        return Scalar<T>::next(in);
    else if constexpr (hasConstructor<T, NboAttrLog::In*, StreamBogon>)
        return T(&in, StreamBogon());
    else
        return defaultThen<T>([&](T& value) { Vel::read(value, in); });
}

}  // namespace Detail
}  // namespace Vel
