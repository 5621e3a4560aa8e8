#include "Vel/base/Exception.h"
#include "Vel/describe/Enumeration.h"
#include "Vel/describe/ForeignTypes.h"
#include "Vel/describe/Module.h"
#include "Vel/describe/internal/DeriveText.h"

#include <algorithm>

// How described values read, print and parse.
namespace Vel {

using NboAttrLog::In;
using NboAttrLog::Out;
using Attribute = TypeDescription::Attribute;
using TypeForm = TypeDescription::Form;

ForeignType::ForeignType(ForeignTypes& types, TypeDescription description)
    : types_(types), description_(std::move(description)) {}

// --- for reflection ---

VelType ForeignType::named(String const& name) const { return name.empty() ? VelType() : types_.find(name.view()); }
VelTypeBase ForeignType::base() const {
    if (!description_.isEntity() || description_.base.empty()) return {};
    if (state_ == State::known) return base_;
    try {
        return types_.entityType(description_.base.view());
    } catch (RangeException const&) {
        return {};  // of a type that is not used
    }
}
VelType ForeignType::valueType(U32 attribute) const {
    VelType const stored = settled(attribute).value;
    if (stored && !stored.isEntity()) return stored;
    VelType const declared = named(description_.attributes[attribute].valueType);
    return stored && !(declared && declared.isEntity()) ? stored : declared;
}
VelType ForeignType::keyType(U32 attribute) const {
    VelType const stored = settled(attribute).key;
    return stored ? stored : named(description_.attributes[attribute].keyType);
}
VelType ForeignType::resultType(U32 attribute) const { return named(description_.attributes[attribute].resultType); }
VelType ForeignType::parameterType(U32 attribute, U32 parameter) const {
    return named(description_.attributes[attribute].parameters[parameter].type);
}

void ForeignType::construct(void* storage) const {
    auto* const value = new (storage) ForeignValue{this, types_.shared_from_this(), {}};
    Out out;
    writeDefault(out);
    value->bytes.assign(out.bytes().begin(), out.bytes().end());
}

// Whether methods take and return the same values. REQUIRES: both types are spelled the same.
bool ForeignType::callsAreSame(ForeignType const& other) const {
    auto const areSame = [](VelType a, VelType b) {
        return (a && b && a.isEntity() && b.isEntity()) || isSameType(a, b);
    };
    for (U32 i = 0; i < description_.attributes.size(); ++i) {
        if (description_.attributes[i].kind != AttributeKind::method) continue;
        if (!areSame(resultType(i), other.resultType(i))) return false;
        for (U32 p = 0; p < description_.attributes[i].parameters.size(); ++p)
            if (!areSame(parameterType(i, p), other.parameterType(i, p))) return false;
    }
    return true;
}

bool ForeignType::isSame(ForeignType const& other) const {
    if (same_ == &other && !sameTypes_.expired()) return true;
    if (!(description_.spelling == other.description_.spelling)) return false;
    if (!isSameType(base(), other.base())) return false;
    if (description_.isEntity() && !callsAreSame(other)) return false;
    bool const same = std::ranges::equal(fields_, other.fields_, [](Field const& a, Field const& b) {
        return isSameType(a.type, b.type);
    }) && std::ranges::equal(attributes_, other.attributes_, [](ForeignAttribute const& a, ForeignAttribute const& b) {
        return isSameType(a.type, b.type) && isSameType(a.key, b.key);
    });
    if (same) {
        same_ = &other;
        sameTypes_ = other.types_.weak_from_this();
    }
    return same;
}

// --- bytes ---

namespace {

// Reads a value of a type that is here, and drops it. Most values are small, and need no memory of their own.
void skipKnown(VelType type, In& in) {
    constexpr std::size_t most = 64;  // bytes
    TypeGlue const& glue = type.glue();
    if (glue.size > most || glue.alignment > alignof(std::max_align_t)) {
        GenericValue const dropped(type, in);
        return;
    }
    alignas(std::max_align_t) std::byte storage[most];
    glue.genericIfConstruct(storage, nullptr);
    struct Value {
        ~Value() { glue.genericIfDestruct(at); }
        TypeGlue const& glue;
        void* at;
    } const value{glue, storage};
    glue.read(value.at, in);
}

void printItem(StrepOut& out, VelType type, In& in) {
    if (ForeignType const* const described = type.glue().foreign)
        described->print(out, in);
    else
        out << GenericValue(type, in).strep().view();
}

void writeDefaultItem(Out& out, VelType type) {
    if (ForeignType const* const described = type.glue().foreign) return described->writeDefault(out);
    GenericValue const value(type);
    type.glue().write(out, value.data());
}

}  // namespace

std::size_t plainSizeOf(VelType type) {
    if (type.glue().foreign || !(type.record().flags & TypeFlag::scalar) || !type.hasFixedEncodedSize()) return 0;
    return type == typeOf<bool>() || type == typeOf<U1>() ? 0 : type.encodedSize();
}

void skipValue(VelType type, In& in) {
    if (ForeignType const* const described = type.glue().foreign) return described->skip(in);
    std::size_t const plain = plainSizeOf(type);
    if (plain == 0) return skipKnown(type, in);
    if (!in.take(plain)) throw StreamException(format("a %s ends too early", type.name()), in.offset());
}

void ForeignType::skip(In& in) const {
    if (!isDelimited_)
        in.take(in.left());
    else
        for (Field const& field : fields_) skipValue(field.type, in);
}

void ForeignType::writeDefault(Out& out) const {
    if (isDelimited_)
        for (Field const& field : fields_) writeDefaultItem(out, field.type);
}

// --- text ---

namespace {

constexpr std::string_view bytesBegin = "Bytes('";
constexpr std::string_view bytesEnd = "')";

[[noreturn]] void expected(std::string_view what, std::size_t at) {
    throw ParseException(format("expected %.*s at offset %zu", static_cast<int>(what.size()), what.data(), at), at);
}

std::size_t behindLiteral(std::string_view text, std::size_t at, std::string_view literal) {
    if (!text.substr(at).starts_with(literal)) expected(literal, at);
    return at + literal.size();
}

// Parses a value of this process that ends where `behind` begins: at the first such place before which the text is one.
std::size_t parseLocal(Out& out, VelType type, std::string_view text, std::size_t at, std::string_view behind) {
    std::size_t end = behind.empty() ? text.size() : text.find(behind, at);
    if (end == std::string_view::npos) expected(behind, text.size());
    for (;;) {
        try {
            GenericValue const value(type, text.substr(at, end - at));
            type.glue().write(out, value.data());
            return end;
        } catch (ParseException const& error) {
            std::size_t const next = behind.empty() ? std::string_view::npos : text.find(behind, end + 1);
            if (next == std::string_view::npos)
                throw ParseException(
                    at == 0 ? error.text() : format("behind offset %zu: %s", at, error.what()), at + error.offset());
            end = next;
        }
    }
}

std::size_t parseItem(Out& out, VelType type, std::string_view text, std::size_t at, std::string_view behind) {
    if (ForeignType const* const described = type.glue().foreign) return described->parse(out, text, at, behind);
    return parseLocal(out, type, text, at, behind);
}

std::vector<Detail::EnumeratorName> namesOf(TypeDescription const& type) {
    std::vector<Detail::EnumeratorName> names;
    for (Attribute const& attribute : type.attributes)
        if (attribute.number) names.push_back({attribute.name.view(), *attribute.number});
    return names;
}

std::string textBefore(TypeDescription const& type, String const& field, bool first) {
    std::string text = first ? "Value('" + type.name.stdString() + "', ** {" : ", ";
    return text + "'" + field.stdString() + "': ";
}

}  // namespace

void ForeignType::print(StrepOut& out, In& in) const {
    if (hasOwnForm_ || !isDelimited_) return printBytes(out, in);
    if (description_.isEnumeration()) return printNumber(out, in);
    if (description_.form == TypeForm::number) return printItem(out, fields_.front().type, in);
    for (Field const& field : fields_) {
        out << textBefore(description_, field.name, &field == &fields_.front());
        printItem(out, field.type, in);
    }
    out << Detail::textAfterFields;
}

void ForeignType::printBytes(StrepOut& out, In& in) const {
    U8 const* const begin = in.data();
    skip(in);
    out << bytesBegin;
    for (U8 const* at = begin; at != in.data(); ++at) {
        char const digits[] = {"0123456789abcdef"[*at >> 4], "0123456789abcdef"[*at & 15]};
        out << std::string_view(digits, 2);
    }
    out << bytesEnd;
}

namespace {

U64 nextUnsigned(VelType type, In& in) {
    switch (type.encodedSize()) {
    case 1:
        return in.nextU8();
    case 2:
        return in.nextU16();
    case 4:
        return in.nextU32();
    default:
        return in.nextU64();
    }
}

void putUnsigned(Out& out, VelType type, U64 number) {
    for (std::size_t size = type.encodedSize(); size-- > 0;) out << static_cast<U8>(number >> 8 * size);
}

}  // namespace

void ForeignType::printNumber(StrepOut& out, In& in) const {
    Detail::printEnumeration(out, nextUnsigned(fields_.front().type, in), namesOf(description_));
}

std::size_t ForeignType::parse(Out& out, std::string_view text, std::size_t at, std::string_view behind) const {
    if (hasOwnForm_ || !isDelimited_) return parseBytes(out, text, at);
    if (description_.isEnumeration()) return parseNumber(out, text, at);
    if (description_.form == TypeForm::number) return parseItem(out, fields_.front().type, text, at, behind);
    for (std::size_t i = 0; i < fields_.size(); ++i) {
        at = behindLiteral(text, at, textBefore(description_, fields_[i].name, i == 0));
        bool const isLast = i + 1 == fields_.size();
        std::string const next =
            isLast ? std::string(Detail::textAfterFields) : textBefore(description_, fields_[i + 1].name, false);
        at = parseItem(out, fields_[i].type, text, at, next);
    }
    return behindLiteral(text, at, Detail::textAfterFields);
}

std::size_t ForeignType::parseNumber(Out& out, std::string_view text, std::size_t at) const {
    VelType const type = fields_.front().type;
    U64 const most = ~U64(0) >> (64 - 8 * type.encodedSize());
    String::IteratorConst it(text.data(), text.data() + at);
    String::IteratorConst const end(text.data(), text.data() + text.size());
    putUnsigned(out, type, Detail::parseEnumeration(it, end, namesOf(description_), most));
    return static_cast<std::size_t>(it.charPtr() - text.data());
}

std::size_t ForeignType::parseBytes(Out& out, std::string_view text, std::size_t at) const {
    at = behindLiteral(text, at, bytesBegin);
    Out bytes;
    constexpr std::string_view digits = "0123456789abcdef";
    while (at < text.size() && text[at] != '\'') {
        std::size_t const high = digits.find(text[at]);
        std::size_t const low = at + 1 < text.size() ? digits.find(text[at + 1]) : std::string_view::npos;
        if (high == std::string_view::npos || low == std::string_view::npos) expected("two hexadecimal digits", at);
        bytes << static_cast<U8>(high << 4 | low);
        at += 2;
    }
    In in(bytes.bytes());
    try {
        skip(in);
    } catch (StreamException const& error) {
        throw ParseException(error.text(), at);
    }
    if (in.left() != 0) expected("the end of the bytes", at);
    if (bytes.size() != 0) std::memcpy(out.append(bytes.size()), bytes.data(), bytes.size());
    return behindLiteral(text, at, bytesEnd);
}

}  // namespace Vel
