#pragma once

#include "Vel/describe/GenericIf.h"
#include "Vel/describe/Value.h"
#include "Vel/text/NboAttrLog.h"

#include <gtest/gtest.h>

#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// What tests of value types share. Bytes are written as pairs of lower-case hexadecimal digits: "0000002a".

inline std::string hexOf(std::span<Vel::U8 const> bytes) {
    std::string text;
    for (auto const byte : bytes)
        for (int const digit : {byte >> 4, byte & 15}) text += "0123456789abcdef"[digit];
    return text;
}

inline std::vector<Vel::U8> bytesOf(std::string_view hex) {
    auto const digit = [](char c) {
        auto const at = std::string_view("0123456789abcdef").find(c);
        if (at == std::string_view::npos) throw std::invalid_argument("not a hexadecimal digit");
        return static_cast<unsigned>(at);
    };
    if (hex.size() % 2 != 0) throw std::invalid_argument("an odd number of hexadecimal digits");
    std::vector<Vel::U8> bytes;
    for (std::size_t i = 0; i < hex.size(); i += 2)
        bytes.push_back(static_cast<Vel::U8>(digit(hex[i]) << 4 | digit(hex[i + 1])));
    return bytes;
}

template <class T> std::string writtenHex(T const& value) {
    Vel::NboAttrLog::Out out;
    out << value;
    return hexOf(out.bytes());
}

// The message of the parse exception for a text as a whole; a failed test when it is accepted.
template <class T> std::string parseError(std::string const& text) {
    try {
        Vel::strepToValue<T>(text, nullptr);
    } catch (Vel::ParseException const& error) {
        return error.what();
    }
    ADD_FAILURE() << "accepted: " << text;
    return {};
}

// An operation by reflection on a value as a whole, or on an attribute of it; the code that it returns.
template <class T> int valueOp(T& value, Vel::AttributeOp op, void* result = nullptr, T const* other = nullptr) {
    return Vel::typeOf<T>().glue().genericIfAttributeOp(result, &value, {}, op, other, nullptr);
}
template <class T>
int attributeOp(T& value, Vel::AttributeId id, Vel::AttributeOp op, void* result = nullptr, void const* arg = nullptr) {
    auto const type = Vel::typeOf<T>();
    auto const attr = type.attributeOfId(id).value_or(Vel::VelAttr(type, type.attributeCount()));
    return type.glue().genericIfAttributeOp(result, &value, attr, op, nullptr, arg);
}

// A type's attributes, as "2 value field get set U16": id, name, kind, what can be asked, the value's type.
inline std::vector<std::string> attributesOf(Vel::VelType type) {
    using Vel::AttributeOp;
    static constexpr char const* kinds[] = {
        "field", "derived", "constant", "setter", "method", "collection", "ctorParam", "declared", "entityAttribute"};
    std::vector<std::string> lines;
    for (Vel::U32 i = 0; i < type.attributeCount(); ++i) {
        auto const attr = type.attribute(i);
        std::string line =
            std::to_string(attr.attributeId()) + " " + attr.name() + " " + kinds[static_cast<std::size_t>(attr.kind())];
        for (auto const& [op, name] :
            {std::pair(AttributeOp::get, "get"), std::pair(AttributeOp::set, "set"), std::pair(AttributeOp::del, "del"),
                std::pair(AttributeOp::count, "count"), std::pair(AttributeOp::changeCounter, "changeCounter"),
                std::pair(AttributeOp::exists, "exists"), std::pair(AttributeOp::call, "call")})
            if (attr.answers(op)) line += std::string(" ") + name;
        if (attr.valueType()) line += std::string(" ") + attr.valueType().name();
        lines.push_back(line);
    }
    return lines;
}

// An attribute as "4 bucket collection ops 0 1 2 3 4 5 type U64 key Mox::BucketId", "11 f method ops 10 (a U16, b U8)".
inline std::string spelled(Vel::VelAttr attr) {
    static constexpr char const* kinds[] = {
        "field", "derived", "constant", "setter", "method", "collection", "ctorParam", "declared", "entityAttribute"};
    std::string text =
        std::to_string(attr.attributeId()) + " " + attr.name() + " " + kinds[static_cast<std::size_t>(attr.kind())];
    std::string ops;
    for (Vel::U32 op = 0; op < 22; ++op)
        if (attr.answers(Vel::AttributeOp(op))) ops += " " + std::to_string(op);
    if (!ops.empty()) text += " ops" + ops;
    if (attr.valueType()) text += std::string(" type ") + attr.valueType().name();
    if (attr.keyType()) text += std::string(" key ") + attr.keyType().name();
    if (attr.resultType()) text += std::string(" result ") + attr.resultType().name();
    for (Vel::U32 i = 0; i < attr.parameterCount(); ++i)
        text += (i == 0 ? " (" : ", ") + std::string(attr.parameterName(i)) + " " +
                std::string(attr.parameterType(i).name());
    return attr.parameterCount() ? text + ")" : text;
}
template <class T> std::vector<std::string> spelledAttributes() {
    auto const type = Vel::typeOf<T>();
    std::vector<std::string> lines;
    for (Vel::U32 i = 0; i < type.attributeCount(); ++i) lines.push_back(spelled(type.attribute(i)));
    return lines;
}
template <class T> std::vector<Vel::U32> valueOps() {
    std::vector<Vel::U32> ops;
    for (Vel::U32 op = 0; op < 64; ++op)
        if (Vel::typeOf<T>().answers(Vel::AttributeOp(op))) ops.push_back(op);
    return ops;
}

template <class T>
int keyedOp(
    T& value, Vel::AttributeId id, Vel::AttributeOp op, void* result, void const* key, void const* arg = nullptr) {
    auto const type = Vel::typeOf<T>();
    return type.glue().genericIfAttributeOp(result, &value, type.attributeOfId(id).value(), op, key, arg);
}
// Calls a method with these arguments, each of which must be of the parameter's very type.
template <class T, class... A> int call(T& value, Vel::AttributeId id, void* result, A const&... arguments) {
    void const* const pointers[] = {&arguments..., nullptr};
    return attributeOp(value, id, Vel::AttributeOp::call, result, pointers);
}
