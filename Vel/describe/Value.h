#pragma once

#include "Vel/base/Hash.h"
#include "Vel/describe/Describe.h"
#include "Vel/describe/internal/StreamItems.h"
#include "Vel/text/NboAttrLog.h"
#include "Vel/text/Scalar.h"
#include "Vel/text/Strep.h"

#include <functional>
#include <iosfwd>

// The functions that every described value type has, derived from its description. The type's header includes this
// header. The class needs only its fields, a default constructor and description().
//
// A namespace of value types can import two functions, so that its users can leave out Vel::, and can write the text to
// a std::ostream by `out << value`:
//
//     using Vel::valueToStrep;
//     using Vel::operator<<;
//
// A class may have two constructors that read a value. If it has, they are called wherever a value is read, instead of
// the default constructor. A class needs them if its default constructor does more than set its fields, or if its
// values are checked.
//
//     T(Vel::String::IteratorConst& it, Vel::String::IteratorConst const& end) { Vel::parse(*this, it, end); }
//     T(Vel::NboAttrLog::In* in, Vel::StreamBogon) { Vel::read(*this, *in); }
namespace Vel {

class VelType;

// --- what the module's source instantiates ---

// The functions of a type that are compiled only once: VEL_MODULE instantiates them in the module's source file. If the
// linker reports this name as undefined, no VEL_MODULE that was linked lists T.
template <class T> struct VEL_API DefinedByVEL_MODULE {
    static VelType type();  // T's type record
    static void print(StrepOut& out, T const& value);
    static void print(std::ostream& out, T const& value);
    static void parse(T& value, String::IteratorConst& it, String::IteratorConst const& end);
    // Parses fast, without exceptions: returns the end of the text form at `from`. Returns null, with `value` partly
    // changed, if there is no text form, or if T has no fast parser.
    static char const* read(T& value, char const* from, char const* end);
};

// --- text ---

// Parses the text form at `it` into `value`, and moves `it` behind it. Throws ParseException; then fields may have
// changed.
template <class T> inline void parse(T& value, String::IteratorConst& it, String::IteratorConst const& end) {
    if (char const* const stop = DefinedByVEL_MODULE<T>::read(value, it.charPtr(), end.charPtr())) [[likely]]
        it.charPtrIs(stop);
    else
        DefinedByVEL_MODULE<T>::parse(value, it, end);  // slower, and says what is wrong
}

template <DescribedValue T> T sequenceToValue(String::IteratorConst& it, String::IteratorConst const& end, T* type) {
    if constexpr (hasOption<T, OptionId::text>)
        return OptionOf<T, OptionId::text>::parse(it, end, type);
    else if constexpr (Detail::hasConstructor<T, String::IteratorConst&, String::IteratorConst const&>)
        return T(it, end);
    else
        return Detail::defaultThen<T>([&](T& value) { Vel::parse(value, it, end); });
}

// Appends the text form.
template <DescribedValue T> StrepOut& operator<<(StrepOut& out, T const& value) {
    DefinedByVEL_MODULE<T>::print(out, value);
    return out;
}
template <DescribedValue T> String valueToStrep(T const& value) {
    StrepOut out;
    DefinedByVEL_MODULE<T>::print(out, value);
    return out.str();
}
// Writes the text form. A number without its own text form is written by the stream's own operator<<, so the stream's
// base and width apply.
template <DescribedValue T> std::ostream& operator<<(std::ostream& out, T const& value) {
    DefinedByVEL_MODULE<T>::print(out, value);
    return out;
}

// Parses all of `s`. Throws ParseException, also if anything follows the value. The pointer selects the type.
template <class T> T strepToValue(String const& s, T* type = nullptr) {
    auto it = s.begin();
    T value = sequenceToValue(it, s.end(), type);
    if (it != s.end()) [[unlikely]]
        strepToValueEnd(s, it);
    return value;
}

// --- stream ---

namespace NboAttrLog {

// Writes the fields in declaration order, and nothing else. It is in Out's namespace, so that argument-dependent lookup
// finds it everywhere.
template <DescribedValue T> inline Out& operator<<(Out& out, T const& value) {
    constexpr std::size_t width = Detail::fixedWidth<T>();
    if constexpr (hasOption<T, OptionId::stream>)
        OptionOf<T, OptionId::stream>::write(out, value);
    else if constexpr (width != 0)
        Detail::storeFixed(out.append(width), value);
    else
        Detail::eachFieldValue(value, [&](auto const& field, auto) { out << field; });
    return out;
}

}  // namespace NboAttrLog

// Reads what operator<< wrote. Throws StreamException, which names the type and the attribute.
template <class T> inline void read(T& value, NboAttrLog::In& in) {
    constexpr std::size_t width = Detail::fixedWidth<T>();
    if constexpr (hasOption<T, OptionId::stream>) {
        OptionOf<T, OptionId::stream>::read(value, in);
    } else if constexpr (width != 0) {
        U8 const* const bytes = in.data();
        bool good = in.left() >= width;
        if (good) [[likely]]
            Detail::loadFixed(bytes, value, good);
        if (good) [[likely]]
            in.dataIs(bytes + width);
        else
            Detail::readByItemsCold(value, in);
    } else {
        Detail::readByItems(value, in);
    }
}

// The value's length in the attribute log, in bytes.
template <class T> std::size_t attrLogSize(T const* value) {
    constexpr std::size_t width = Detail::fixedWidth<T>();
    if constexpr (width != 0) {
        return width;
    } else if constexpr (ScalarValue<T>) {
        return Scalar<T>::size(*value);
    } else if constexpr (hasOption<T, OptionId::stream>) {
        return std::invoke(OptionOf<T, OptionId::stream>::size, *value);
    } else {
        std::size_t sum = 0;
        Detail::eachFieldValue(*value, [&](auto const& field, auto) { sum += attrLogSize(&field); });
        return sum;
    }
}

// --- hash ---

// Returns the hash of a record: mixes each field, in declaration order, by its width. Call it after the class and not
// within: clang instantiates a constexpr function where it is called, and there the description is not known yet.
template <class T> constexpr U32 hashFields(T const& value, U32 seed) {
    Hash hash(seed);
    Detail::eachFieldValue(value, [&](auto const& field, auto) {
        hash.template hashMix<static_cast<unsigned>(Detail::fixedWidth<std::remove_cvref_t<decltype(field)>>())>(field);
    });
    return hash.result();
}

}  // namespace Vel

// Hashable value types work as keys of the standard library's containers.
template <Vel::DescribedValue T>
requires Vel::hasOption<T, Vel::OptionId::hash>
struct std::hash<T> {
    std::size_t operator()(T const& value) const {
        return std::invoke(Vel::OptionOf<T, Vel::OptionId::hash>::function, value, 0u);
    }
};
