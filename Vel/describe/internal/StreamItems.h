#pragma once

#include "Vel/describe/Describe.h"
#include "Vel/text/NboAttrLog.h"
#include "Vel/text/Scalar.h"

#include <string_view>

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

template <class T, class F> constexpr void eachFieldValue(T& value, F&& f) {
    forEachField<std::remove_const_t<T>>(
        [&](auto index) { f(value.*AttributeAt<std::remove_const_t<T>, decltype(index)::value>::member, index); });
}

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

template <class T> void readByItems(T& value, NboAttrLog::In& in) {
    eachFieldValue(value, [&](auto& field, auto index) {
        try {
            field = nextItem<std::remove_cvref_t<decltype(field)>>(in);
        } catch (StreamException const& error) {
            throwStreamExceptionNaming(error, descriptionOf<T>.name, attributeName<T, decltype(index)::value>());
        }
    });
}
// A function of its own that is not inlined, so that the code that reads a value in one piece stays short.
template <class T> VEL_COLD void readByItemsCold(T& value, NboAttrLog::In& in) { readByItems(value, in); }

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
