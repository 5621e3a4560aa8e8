#pragma once

#include "Vel/describe/Value.h"
#include "Vel/text/Scan.h"

#include <algorithm>
#include <ostream>

// Printing and parsing, derived from a description.
namespace Vel::Detail {

// A text that is composed at compile time.
template <std::size_t N> struct FixedText {
    char data[N + 1] = {};
    constexpr std::string_view view() const { return {data, N}; }
};

template <class... Parts> constexpr std::size_t totalSize(Parts... parts) {
    return (std::size_t(0) + ... + parts.size());
}
template <std::size_t N, class... Parts> constexpr FixedText<N> concatenated(Parts... parts) {
    FixedText<N> text;
    char* to = text.data;
    ((to = std::copy(parts.begin(), parts.end(), to)), ...);
    return text;
}

template <class T, std::size_t I> constexpr bool isFirstField() {
    bool first = true;
    forEachField<T>([&](auto index) {
        if (index < I) first = false;
    });
    return first;
}

// Returns the text before a record's field: "Value('T', ** {'first': " or ", 'later': ".
template <class T, std::size_t I> constexpr auto textBefore() {
    using namespace std::string_view_literals;
    constexpr auto name = attributeName<T, I>();
    if constexpr (isFirstField<T, I>()) {
        constexpr auto type = descriptionOf<T>.name;
        constexpr std::size_t size = totalSize("Value('"sv, type, "', ** {"sv, "'"sv, name, "': "sv);
        return concatenated<size>("Value('"sv, type, "', ** {"sv, "'"sv, name, "': "sv);
    } else {
        return concatenated<totalSize(", '"sv, name, "': "sv)>(", '"sv, name, "': "sv);
    }
}
inline constexpr std::string_view textAfterFields = "})";

// Returns the room for the longest text of a value, in bytes, or 0 if no limit is known here.
template <class T> constexpr std::size_t maxText() {
    if constexpr (ScalarValue<T>) {
        return Scalar<T>::maxText;
    } else if constexpr (hasOption<T, OptionId::text>) {
        return 0;
    } else {
        std::size_t sum = textAfterFields.size();
        bool limited = true;
        forEachField<T>([&](auto index) {
            constexpr std::size_t I = decltype(index)::value;
            constexpr std::size_t field = maxText<FieldType<T, I>>();
            sum += textBefore<T, I>().view().size() + field;
            limited = limited && field != 0;
        });
        return limited ? sum : 0;
    }
}

inline char* copied(char* to, std::string_view text) {
    std::memcpy(to, text.data(), text.size());
    return to + text.size();
}

// Writes the text of a value, and returns its end. REQUIRES: maxText<T>() is not 0, and `to` has that much room.
template <class T> char* writeText(char* to, T const& value) {
    if constexpr (ScalarValue<T>) {
        return Scalar<T>::write(to, value);
    } else if constexpr (DescriptionOf<T>::form == Form::number) {
        eachFieldValue(value, [&](auto const& field, auto) { to = writeText(to, field); });
        return to;
    } else {
        eachFieldValue(value, [&](auto const& field, auto index) {
            static constexpr auto before = textBefore<T, decltype(index)::value>();
            to = writeText(copied(to, before.view()), field);
        });
        return copied(to, textAfterFields);
    }
}

template <class T> void printValue(StrepOut& out, T const& value) {
    constexpr std::size_t most = maxText<T>();
    if constexpr (most != 0) {
        out.endIs(writeText(out.room(most), value));
    } else if constexpr (ScalarValue<T>) {
        out.endIs(Scalar<T>::write(out.room(Scalar<T>::roomFor(value)), value));
    } else if constexpr (hasOption<T, OptionId::text>) {
        constexpr auto print = OptionOf<T, OptionId::text>::print;
        if constexpr (std::is_invocable_v<decltype(print), StrepOut&, T const&>)
            print(out, value);
        else
            out << std::invoke(print, value).view();
    } else {
        eachFieldValue(value, [&](auto const& field, auto index) {
            static constexpr auto before = textBefore<T, decltype(index)::value>();
            out << before.view();
            printValue(out, field);
        });
        out << textAfterFields;
    }
}

inline std::to_chars_result copiedIfItFits(char* first, char* last, std::string_view text) {
    if (text.size() > static_cast<std::size_t>(last - first)) return {last, std::errc::value_too_large};
    if (!text.empty()) std::memcpy(first, text.data(), text.size());
    return {first + text.size(), std::errc()};
}

template <class T> std::to_chars_result valueToChars(char* first, char* last, T const& value) {
    constexpr std::size_t most = maxText<T>();
    if constexpr (most != 0) {
        if (static_cast<std::size_t>(last - first) >= most) [[likely]]
            return {writeText(first, value), std::errc()};
        char text[most];
        return copiedIfItFits(first, last, {text, static_cast<std::size_t>(writeText(text, value) - text)});
    } else {
        StrepOut out(first, last);
        printValue(out, value);
        if (out.view().data() == first) return {first + out.size(), std::errc()};
        return copiedIfItFits(first, last, out.view());  // the room that was asked for was more than the text needs
    }
}

// Compares N bytes in words; for short literals faster than memcmp.
template <class Word, std::size_t N> inline bool sameWords(char const* a, char const* b) {
    auto const difference = [&](std::size_t at) {
        Word x;
        Word y;
        std::memcpy(&x, a + at, sizeof x);
        std::memcpy(&y, b + at, sizeof y);
        return static_cast<Word>(x ^ y);
    };
    return [&]<std::size_t... I>(std::index_sequence<I...>) {
        return (difference(N - sizeof(Word)) | ... | difference(I * sizeof(Word))) == 0;
    }
    (std::make_index_sequence<N / sizeof(Word)>());
}

// Compares N bytes in sixteens.
template <std::size_t N> inline bool sameVectors(char const* a, char const* b) {
    typedef U64 Pair __attribute__((vector_size(16)));
    auto const difference = [&](std::size_t at) {
        Pair x;
        Pair y;
        std::memcpy(&x, a + at, sizeof x);
        std::memcpy(&y, b + at, sizeof y);
        return x ^ y;
    };
    Pair const all = [&]<std::size_t... I>(std::index_sequence<I...>) {
        return (difference(N - sizeof(Pair)) | ... | difference(I * sizeof(Pair)));
    }
    (std::make_index_sequence<N / sizeof(Pair)>());
    return (all[0] | all[1]) == 0;
}

template <std::size_t N>
inline char const* readLiteral(char const* from, char const* end, FixedText<N> const& literal) {
    if (static_cast<std::size_t>(end - from) < N) return nullptr;
    bool same = true;
    if constexpr (N >= 16)
        same = sameVectors<N>(from, literal.data);
    else if constexpr (N >= 8)
        same = sameWords<U64, N>(from, literal.data);
    else if constexpr (N >= 4)
        same = sameWords<U32, N>(from, literal.data);
    else
        same = std::memcmp(from, literal.data, N) == 0;
    return same ? from + N : nullptr;
}

// Reads a scalar behind at least `before` bytes of text.
template <std::size_t before, class T> char const* readBehind(char const* from, char const* end, T& value) {
    if constexpr (before >= Scan::roomBefore && requires { Scalar<T>::readInside(from, end, value); })
        return Scalar<T>::readInside(from, end, value);
    else
        return Scalar<T>::read(from, end, value);
}

// Bytes of text before the first field. It is 0 for a record without fields, which is an error that is told elsewhere.
template <class T> constexpr std::size_t textBeforeFirst() {
    if constexpr (fieldIndexes<T>.size() == 0)
        return 0;
    else
        return textBefore<T, fieldIndexes<T>[0]>().view().size();
}

template <class T>
[[gnu::always_inline]] inline char const* readRecord(char const* from, char const* end, FieldTuple<T>& fields) {
    bool good = true;
    FieldsOf<T>::each(fields, [&](auto& field, auto index) {
        if (!good) return;
        static constexpr auto before = textBefore<T, decltype(index)::value>();
        from = readLiteral(from, end, before);
        if (from) from = readBehind<textBeforeFirst<T>()>(from, end, field);
        good = from != nullptr;
    });
    static constexpr auto after = concatenated<textAfterFields.size()>(textAfterFields);
    return good ? readLiteral(from, end, after) : nullptr;
}

// Parses a number or a record fast, and returns the end of its text. Returns null if anything is wrong; parseFields(),
// which is slower, then says what. REQUIRES: hasFieldText<T>().
template <class T> char const* readText(FieldTuple<T>& fields, char const* from, char const* end) {
    if constexpr (DescriptionOf<T>::form == Form::number) {
        FieldsOf<T>::each(fields,
            [&](auto& field, auto) { from = Scalar<std::remove_cvref_t<decltype(field)>>::read(from, end, field); });
        return from;
    } else {
        return readRecord<T>(from, end, fields);
    }
}

// Calls f(field, index) for each field of a value, or of a tuple of the fields.
template <class T, class F> void eachFieldOf(T& value, F&& f) { eachFieldValue(value, f); }
template <class T, class F> void eachFieldOf(FieldTuple<T>& fields, F&& f) { FieldsOf<T>::each(fields, f); }

// Parses a record piece by piece, by the same texts that the printer writes. Throws at the first piece that does not
// match.
template <class T, class Fields>
VEL_COLD void parseRecord(Fields& fields, String::IteratorConst& it, String::IteratorConst const& end) {
    using namespace std::string_view_literals;
    eachFieldOf<T>(fields, [&](auto& field, auto index) {
        constexpr std::size_t I = decltype(index)::value;
        static constexpr auto before = textBefore<T, I>();
        constexpr std::size_t opening =
            isFirstField<T, I>() ? totalSize("Value('"sv, descriptionOf<T>.name, "', ** {"sv) : 0;
        if constexpr (opening != 0) {
            static constexpr auto open = concatenated<opening>(before.view().substr(0, opening));
            needString(it, end, open.data);
        }
        needString(it, end, before.data + opening);
        static constexpr auto name = concatenated<attributeName<T, I>().size()>(attributeName<T, I>());
        field = deserializeAttr<std::remove_cvref_t<decltype(field)>>(it, end, name.data);
    });
    needString(it, end, textAfterFields.data());
}

template <class T, class Fields>
VEL_COLD void parseValue(Fields& fields, String::IteratorConst& it, String::IteratorConst const& end) {
    eachFieldOf<T>(fields, [](auto& field, auto) { field = std::remove_cvref_t<decltype(field)>(); });
    if constexpr (DescriptionOf<T>::form == Form::number) {
        eachFieldOf<T>(fields, [&](auto& field, auto index) {
            static constexpr auto name = concatenated<attributeName<T, decltype(index)::value>().size()>(
                attributeName<T, decltype(index)::value>());
            field = deserializeAttr<std::remove_cvref_t<decltype(field)>>(it, end, name.data);
        });
    } else {
        parseRecord<T>(fields, it, end);
    }
}

}  // namespace Vel::Detail
