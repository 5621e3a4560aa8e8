#pragma once

#include "ValueTest.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Checked.h"
#include "Vel/describe/Format.h"

#include <concepts>
#include <functional>
#include <sstream>

// What tests of values that are printed as records share.

template <class T> std::string textOf(T const& value) { return valueToStrep(value).stdString(); }

template <class T> std::string printed(T const& value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

// The message of the exception E that f throws; a failed test when it throws none.
template <class E, class F> std::string messageOf(F f) {
    try {
        f();
    } catch (E const& error) {
        return error.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}

template <class T>
concept Ordered = requires(T const& a, T const& b) {
    a < b;
}
|| requires(T const& a, T const& b) { a > b; }
|| requires(T const& a, T const& b) { a <= b; }
|| requires(T const& a, T const& b) { a >= b; };
template <class T>
concept EqualityCompared = requires(T const& a, T const& b) {
    a == b;
}
|| requires(T const& a, T const& b) { a != b; };
template <class T>
concept HasHash = requires(T const& value) {
    value.hash(0u);
}
|| requires { std::hash<T>()(std::declval<T>()); };

// --- text ---

// Refused as a whole text, by exception and by error alike, with the same words.
template <class T> void expectRefused(std::string const& text) {
    SCOPED_TRACE(text);
    auto const checked = Vel::checkedStrepToValue<T>(text);
    ASSERT_FALSE(checked);
    EXPECT_EQ(checked.error().text, messageOf<Vel::RangeException>([&] { Vel::strepToValue<T>(text, nullptr); }));
}

// Every beginning of a text, the text with anything behind it, and, up to `free` (a place where any character may
// stand; npos: nowhere), the text with one more blank or one character missing.
template <class T> void expectNothingElseParsed(std::string const& text, std::size_t free = std::string::npos) {
    ASSERT_TRUE(Vel::checkedStrepToValue<T>(text)) << text;
    for (std::size_t i = 0; i < text.size(); ++i) {
        expectRefused<T>(text.substr(0, i));
        if (i != free) expectRefused<T>(text.substr(0, i) + ' ' + text.substr(i));
    }
    for (auto const& more : {std::string(" "), std::string("\n"), std::string(")"), std::string(1, '\0'), text})
        expectRefused<T>(text + more);
}

// --- bytes ---

// The value that all of these bytes encode.
template <class T> T readFrom(std::string_view hex) {
    auto const bytes = bytesOf(hex);
    Vel::NboAttrLog::In in(bytes);
    T value(&in, Vel::StreamBogon());
    EXPECT_EQ(in.left(), 0u);
    return value;
}

template <class T> std::string readError(std::string_view hex) {
    auto const bytes = bytesOf(hex);
    Vel::NboAttrLog::In in(bytes);
    return messageOf<Vel::StreamException>([&] { T(&in, Vel::StreamBogon()); });
}

// Every beginning of these bytes, and the bytes with one more, by exception and by error.
template <class T> void expectOtherLengthsRefused(std::string_view hex) {
    auto const bytes = bytesOf(hex);
    ASSERT_TRUE(Vel::checkedRead<T>(bytes)) << hex;
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        auto const some = std::span<Vel::U8 const>(bytes).first(size);
        Vel::NboAttrLog::In in(some);
        EXPECT_THROW(T(&in, Vel::StreamBogon()), Vel::StreamException) << size;
        EXPECT_FALSE(Vel::checkedRead<T>(some)) << size;
    }
    auto more = bytes;
    more.push_back(0);
    auto const checked = Vel::checkedRead<T>(more);
    ASSERT_FALSE(checked);
    EXPECT_EQ(checked.error().text.stdString(), "1 bytes left over at offset " + std::to_string(bytes.size()));
    EXPECT_EQ(checked.error().offset, bytes.size());
}

// --- reflection ---

// A call by reflection with these arguments; the code that it returns.
template <class T, class... A> int callOp(T& value, Vel::AttributeId id, void* result, A const&... arguments) {
    void const* const pointers[] = {static_cast<void const*>(&arguments)..., nullptr};
    return attributeOp(value, id, Vel::AttributeOp::call, result, static_cast<void const*>(pointers));
}

template <class T> bool truthOf(T value) {
    bool result = false;
    EXPECT_EQ(valueOp(value, Vel::AttributeOp::truth, &result), 0);
    return result;
}
template <class T> bool equalByReflection(T a, T const& b) {
    bool result = false;
    EXPECT_EQ(valueOp(a, Vel::AttributeOp::equal, &result, &b), 0);
    return result;
}
template <class T> bool lessByReflection(T a, T const& b) {
    bool result = false;
    EXPECT_EQ(valueOp(a, Vel::AttributeOp::less, &result, &b), 0);
    return result;
}

// The operations from 0 to 39 that an attribute (by id) or the value as a whole (by nothing) answers with other than
// `code`. None of the refused ones touches the result, the operand or the object.
template <class T> std::vector<Vel::U32> opsNotAnswered(T& value, Vel::AttributeId id, int code, Vel::U32 except = 99) {
    std::vector<Vel::U32> others;
    unsigned char untouched[64];
    for (auto& byte : untouched) byte = 0x5A;
    void const* const arguments[] = {untouched, untouched, untouched};
    for (Vel::U32 op = 0; op < 40; ++op) {
        if (op == except) continue;
        auto const object = writtenHex(value);
        if (attributeOp(value, id, Vel::AttributeOp(op), untouched, arguments) != code) others.push_back(op);
        EXPECT_EQ(writtenHex(value), object) << op;
    }
    for (auto const byte : untouched) EXPECT_EQ(byte, 0x5A);
    return others;
}

// The operations on the value as a whole that reflection does them, by their numbers.
template <class T> std::vector<Vel::U32> wholeValueOps(T& value) {
    std::vector<Vel::U32> done;
    for (Vel::U32 op = 0; op < 40; ++op) {
        alignas(16) unsigned char result[64] = {};  // of a bool, or of a number's arithmetic
        T const other = value;
        int const code = valueOp(value, Vel::AttributeOp(op), result, &other);
        EXPECT_TRUE(code == 0 || code == 1) << op;
        EXPECT_EQ(Vel::typeOf<T>().answers(Vel::AttributeOp(op)), code == 0) << op;
        if (code == 0) done.push_back(op);
    }
    return done;
}

template <class T> void expectNoHash(std::string const& typeName) {
    Vel::GenericValue const value(Vel::typeOf<T>());
    EXPECT_FALSE(value.type().isHashable());
    EXPECT_EQ(
        messageOf<Vel::UnhashableException>([&] { value.hash(); }), "values of type " + typeName + " have no hash");
}
