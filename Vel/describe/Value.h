#pragma once

#include "Vel/base/Hash.h"
#include "Vel/describe/Describe.h"
#include "Vel/describe/internal/StreamItems.h"
#include "Vel/text/NboAttrLog.h"
#include "Vel/text/Scalar.h"
#include "Vel/text/Strep.h"

#include <charconv>
#include <functional>
#include <iosfwd>
#include <string>

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
    static std::to_chars_result toChars(char* first, char* last, T const& value);
    static void parse(T& value, String::IteratorConst& it, String::IteratorConst const& end);
    // These two are for a T with Detail::hasFieldText<T>(). `fields` points to a Detail::FieldTuple<T>.
    // Parses fast, without exceptions: returns the end of the text form at `from`, or null if there is none.
    static char const* readFields(void* fields, char const* from, char const* end);
    static void parseFields(void* fields, String::IteratorConst& it, String::IteratorConst const& end);
};

// --- text ---

// Parses the text form at `it` into `value`, and moves `it` behind it. Throws ParseException; then fields may have
// changed.
template <class T>
[[gnu::always_inline]] inline void parse(T& value, String::IteratorConst& it, String::IteratorConst const& end) {
    if constexpr (Detail::hasFieldText<T>()) {
        Detail::FieldTuple<T> fields;  // and not the fields of `value`: see FieldsOf
        if (char const* const stop = DefinedByVEL_MODULE<T>::readFields(&fields, it.charPtr(), end.charPtr()))
            [[likely]]
            it.charPtrIs(stop);
        else
            try {
                DefinedByVEL_MODULE<T>::parseFields(&fields, it, end);  // slower, and says what is wrong
            } catch (...) {
                Detail::FieldsOf<T>::store(value, std::move(fields));  // what was parsed before the error
                throw;
            }
        Detail::FieldsOf<T>::store(value, std::move(fields));
    } else {
        DefinedByVEL_MODULE<T>::parse(value, it, end);
    }
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
// Returns the text form as a std::string. Only the string's own memory is allocated, if the text has at most 512 bytes.
template <class T>
requires(DescribedValue<T> || ScalarValue<T>) std::string valueToStdString(T const& value) {
    StrepOut out;
    DefinedByVEL_MODULE<T>::print(out, value);
    return std::string(out.view());
}
// Writes the text form to [first, last), without a NUL, and returns its end, as std::to_chars() does. If it does not fit,
// returns {last, std::errc::value_too_large}, and what is in the range then has no meaning. Never writes from `last` on.
// Allocates nothing for a type of numbers and flags. For other types, allocates memory only if [first, last) has less
// room than the text might need; that is four bytes for each byte of a string.
template <class T>
requires(DescribedValue<T> || ScalarValue<T>) std::to_chars_result
    valueToChars(char* first, char* last, T const& value) {
    return DefinedByVEL_MODULE<T>::toChars(first, last, value);
}
// Writes the text form. A number without its own text form is written by the stream's own operator<<, so the stream's
// base and width apply.
template <DescribedValue T> std::ostream& operator<<(std::ostream& out, T const& value) {
    DefinedByVEL_MODULE<T>::print(out, value);
    return out;
}

// Parses all of `text`, and reads no byte behind it. Throws ParseException, also if anything follows the value. The
// pointer selects the type. The second function takes a std::string_view, a char pointer, and all else that is like a
// text, and makes no string of it.
template <class T> T strepToValue(String const& text, T* type = nullptr);
template <class T, TextLike S> T strepToValue(S const& text, T* type = nullptr) {
    std::string_view const view = viewOf(text);
    String::IteratorConst it(view.data(), view.data());
    String::IteratorConst const end(view.data(), view.data() + view.size());
    T value = sequenceToValue(it, end, type);
    if (it != end) [[unlikely]]
        throwParseException(it, end, "the end of the text");
    return value;
}
template <class T> T strepToValue(String const& text, T* type) { return strepToValue<T>(text.view(), type); }

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

namespace Detail {

// Reads a value whose encoding always has the same length. It is always inlined, and passes no address of `value` on,
// so that the compiler keeps the fields in registers until it knows where they go; see FieldsOf.
template <class T> [[gnu::always_inline]] inline void readFixed(T& value, NboAttrLog::In& in) {
    constexpr std::size_t width = fixedWidth<T>();
    U8 const* const bytes = in.data();
    bool good = in.left() >= width;
    if (good) [[likely]]
        loadFixed(bytes, value, good);
    if (good) [[likely]]
        in.dataIs(bytes + width);
    else if constexpr (hasScalarsOnly<T>())
        failByItemsCold<T>(in);
    else  // a field's own constructor may take bytes that loadFixed() does not
        FieldsOf<T>::store(value, fieldsByItemsCold<T>(in));
}

}  // namespace Detail

// Reads what operator<< wrote. Throws StreamException, which names the type and the attribute.
template <class T> inline void read(T& value, NboAttrLog::In& in) {
    if constexpr (hasOption<T, OptionId::stream>)
        OptionOf<T, OptionId::stream>::read(value, in);
    else if constexpr (Detail::fixedWidth<T>() != 0)
        Detail::readFixed(value, in);
    else
        Detail::readByItems(value, in);
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
