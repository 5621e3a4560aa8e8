#include "Vel/describe/internal/ForeignTable.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <new>

namespace Vel {

using NboAttrLog::In;
using NboAttrLog::Out;
using Attribute = TypeDescription::Attribute;
using TypeForm = TypeDescription::Form;

// --- the functions of values ---

namespace {

ForeignValue& valueAt(void* object) { return *static_cast<ForeignValue*>(object); }
ForeignValue const& valueAt(void const* object) { return *static_cast<ForeignValue const*>(object); }
std::span<U8 const> bytesOf(std::string const& bytes) {
    return {reinterpret_cast<U8 const*>(bytes.data()), bytes.size()};
}

void construct(void* dst, void const* src) {
    if (src)
        new (dst) ForeignValue(valueAt(src));
    else
        new (dst) ForeignValue();
}
void destruct(void* value) { valueAt(value).~ForeignValue(); }

void print(StrepOut& out, void const* value) {
    In in(bytesOf(valueAt(value).bytes));
    valueAt(value).type->print(out, in);
}
String strRep(void const* value, VelType) {
    StrepOut out;
    print(out, value);
    return out.str();
}
std::to_chars_result toChars(char* first, char* last, void const* value) {
    StrepOut out;
    print(out, value);
    if (out.size() > static_cast<std::size_t>(last - first)) return {last, std::errc::value_too_large};
    std::memcpy(first, out.view().data(), out.size());
    return {first + out.size(), std::errc()};
}

void assign(void* dst, Out const& bytes) { valueAt(dst).bytes.assign(bytes.bytes().begin(), bytes.bytes().end()); }
void textToValue(void* dst, std::string_view text, VelType type) {
    Out out;
    std::size_t const end = type.glue().foreign->parse(out, text, 0, {});
    if (end != text.size()) throw ParseException(format("expected the end of the text at offset %zu", end), end);
    assign(dst, out);
}
void strepToValue(void* dst, String const& text, VelType type) { textToValue(dst, text.view(), type); }

void write(Out& out, void const* value) {
    std::string const& bytes = valueAt(value).bytes;
    if (!bytes.empty()) std::memcpy(out.append(bytes.size()), bytes.data(), bytes.size());
}
void read(void* dst, In& in) {
    U8 const* const begin = in.data();
    valueAt(dst).type->skip(in);
    valueAt(dst).bytes.assign(reinterpret_cast<char const*>(begin), static_cast<std::size_t>(in.data() - begin));
}
std::size_t attrLogSize(void const* value) { return valueAt(value).bytes.size(); }
U32 hash(void const*, VelType type) { GenericIfImpl::throwUnhashableException(type); }

// Reads the field of the number `id` into `result`, which is a value of its type.
int getField(void* result, ForeignValue const& value, AttributeId id) {
    ForeignType const& type = *value.type;
    In in(bytesOf(value.bytes));
    std::size_t field = 0;
    for (Attribute const& attribute : type.description().attributes) {
        if (attribute.kind != AttributeKind::field || field >= type.fields().size()) continue;
        GenericValue part(type.fields()[field++].type, in);
        if (attribute.id != id) continue;
        Out out;
        part.type().glue().write(out, part.data());
        In again(out.bytes());
        part.type().glue().read(result, again);
        return static_cast<int>(AttributeResult::done);
    }
    return static_cast<int>(AttributeResult::unsupported);
}

int attributeOp(void* result, void* object, VelAttr attr, AttributeOp op, void const* other, void const*) {
    ForeignValue const& value = valueAt(object);
    if (attr)
        return op == AttributeOp::get && value.type->isDelimited() ? getField(result, value, attr.attributeId())
                                                                   : static_cast<int>(AttributeResult::unsupported);
    if (op != AttributeOp::equal) return static_cast<int>(AttributeResult::unsupported);
    if (result) *static_cast<bool*>(result) = value.bytes == valueAt(other).bytes;
    return static_cast<int>(AttributeResult::done);
}

void fillValueGlue(TypeGlue& glue) {
    glue.size = sizeof(ForeignValue);
    glue.alignment = alignof(ForeignValue);
    glue.genericIfAttributeOp = attributeOp;
    glue.genericIfConstruct = construct;
    glue.genericIfDestruct = destruct;
    glue.genericIfStrRep = strRep;
    glue.genericIfStrepToValue = strepToValue;
    glue.genericIfTextToValue = textToValue;
    glue.genericIfToChars = toChars;
    glue.genericIfHash = hash;
    glue.write = write;
    glue.read = read;
    glue.attrLogSize = attrLogSize;
}

constexpr U32 equalOp = opBit(AttributeOp::equal) >> static_cast<U32>(AttributeOp::truth);

}  // namespace

// --- the table ---

// A sorted list of names, each with a NUL at the end.
class ForeignTable::Names {
public:
    void add(String const& name) { names_.push_back(name.view()); }
    void sort() {
        std::ranges::sort(names_);
        names_.erase(std::unique(names_.begin(), names_.end()), names_.end());
        for (std::string_view const name : names_) {
            offsets_.push_back(text_.size());
            text_.append(name).push_back('\0');
        }
        if (text_.size() >= noName) throwRangeException("a module that is described has too many names");
    }
    std::size_t offset(String const& name) const {
        auto const at = std::ranges::lower_bound(names_, name.view());
        return offsets_[static_cast<std::size_t>(at - names_.begin())];
    }
    U16 typeOffset(String const& name) const { return name.empty() ? noName : static_cast<U16>(offset(name)); }
    std::string const& text() const { return text_; }

private:
    std::vector<std::string_view> names_;
    std::vector<std::size_t> offsets_;
    std::string text_;
};

namespace {

// The tables have the types of which values consist or which they take, and not the types of computed results.
String const& listedType(Attribute const& attribute) {
    static String const none;
    bool const isComputed = attribute.kind == AttributeKind::derived || attribute.kind == AttributeKind::constant;
    return isComputed ? none : attribute.valueType;
}

template <class F> void eachTypeName(TypeDescription const& type, F f) {
    f(type.name);
    if (!type.base.empty()) f(type.base);
    for (Attribute const& attribute : type.attributes) {
        if (String const& name = listedType(attribute); !name.empty()) f(name);
        if (!attribute.keyType.empty()) f(attribute.keyType);
        for (auto const& parameter : attribute.parameters) f(parameter.type);
    }
}

U16 flagsOf(TypeDescription const& type) {
    unsigned flags = type.flags & (TypeFlag::ownText | TypeFlag::ownStream);
    if (type.isEntity()) flags |= TypeFlag::entity | TypeFlag::polymorphic;
    if (type.form == TypeForm::number) flags |= TypeFlag::number;
    return static_cast<U16>(flags);
}

}  // namespace

// What a table is made of, and where its parts go.
struct ForeignTable::Parts {
    Parts(String const& module, U64 fingerprint, std::span<std::unique_ptr<ForeignType> const> types);

    Names typeNames, attributeNames;
    ModuleHeader header{};

private:
    void list(TypeDescription const& type);
    U32 place(std::size_t bytes) {
        std::size_t const at = (header.size + 7u) / 8 * 8;
        header.size = static_cast<U32>(at + bytes);
        return static_cast<U32>(at);
    }
    std::size_t attributes_ = 0, parameters_ = 0;
};

void ForeignTable::Parts::list(TypeDescription const& type) {
    eachTypeName(type, [&](String const& name) { typeNames.add(name); });
    attributes_ += type.attributes.size();
    for (Attribute const& attribute : type.attributes) {
        attributeNames.add(attribute.name);
        parameters_ += attribute.parameters.size();
        for (auto const& parameter : attribute.parameters) attributeNames.add(parameter.name);
    }
}

ForeignTable::Parts::Parts(String const& module, U64 fingerprint, std::span<std::unique_ptr<ForeignType> const> types) {
    attributeNames.add(String());
    for (auto const& type : types) list(type->description());
    typeNames.sort();
    attributeNames.sort();
    if (types.size() >= 0x10000 || attributes_ >= 0x10000 || parameters_ >= 0x10000)
        throwRangeException("a module that is described has too many types or attributes");
    std::memcpy(header.magic, moduleMagic, sizeof moduleMagic);
    header.fingerprint = fingerprint;
    header.typeCount = static_cast<U16>(types.size());
    header.attributeCount = static_cast<U16>(attributes_);
    header.parameterCount = static_cast<U16>(parameters_);
    header.typeNamesSize = static_cast<U16>(typeNames.text().size());
    header.attributeNamesSize = static_cast<U16>(attributeNames.text().size());
    header.nameSize = static_cast<U16>(module.size() + 1);
    header.size = sizeof(ModuleHeader);
    header.types = place(types.size() * sizeof(TypeRecord));
    header.attributes = place(attributes_ * sizeof(AttributeRecord));
    header.parameters = place(parameters_ * sizeof(ParameterRecord));
    header.typeNames = place(header.typeNamesSize);
    header.attributeNames = place(header.attributeNamesSize);
    header.name = place(header.nameSize);
    header.glue = place(types.size() * sizeof(TypeGlue const*));
}

void ForeignTable::make(String const& module, U64 fingerprint, std::span<std::unique_ptr<ForeignType> const> types,
    ForeignEntityFunctions const& functions) {
    Parts const parts(module, fingerprint, types);
    ModuleHeader const& header = parts.header;
    memory_.reset(static_cast<char*>(::operator new(header.size)));
    char* const to = memory_.get();
    std::memset(to, 0, header.size);
    module_ = new (to) ModuleHeader(header);
    std::memcpy(to + header.typeNames, parts.typeNames.text().data(), header.typeNamesSize);
    std::memcpy(to + header.attributeNames, parts.attributeNames.text().data(), header.attributeNamesSize);
    std::memcpy(to + header.name, module.charPtr(), module.size());
    for (auto const& type : types) {
        fill(parts, type->description());
        type->self_ = VelType(module_, typesFilled_);
        fillGlue(*type, functions);
        part<TypeGlue const*>(header.glue)[typesFilled_++] = &type->glue_;
    }
}

// Writes the records of one type.
void ForeignTable::fill(Parts const& parts, TypeDescription const& type) {
    U16 const first = attributesFilled_;
    for (Attribute const& attribute : type.attributes) {
        auto const name = static_cast<U32>(parts.attributeNames.offset(attribute.name));
        AttributeRecord& record = part<AttributeRecord>(parts.header.attributes)[attributesFilled_++];
        record.id = attribute.id;
        record.nameLowKindOps = (name & 15) << 28 | static_cast<U32>(attribute.kind) << 22 | attribute.ops;
        record.nameHigh = static_cast<U16>(name >> 4);
        record.valueType = parts.typeNames.typeOffset(listedType(attribute));
        record.keyType = parts.typeNames.typeOffset(attribute.keyType);
        record.firstParameter = parametersFilled_;
        record.parameterCount = static_cast<U16>(attribute.parameters.size());
        for (auto const& parameter : attribute.parameters)
            part<ParameterRecord>(parts.header.parameters)[parametersFilled_++] = {
                static_cast<U16>(parts.attributeNames.offset(parameter.name)),
                parts.typeNames.typeOffset(parameter.type)};
    }
    part<TypeRecord>(parts.header.types)[typesFilled_] = {parts.typeNames.typeOffset(type.name),
        parts.typeNames.typeOffset(type.base), flagsOf(type), static_cast<U16>(type.isEntity() ? 0 : equalOp), 0,
        0xFFFF, first, static_cast<U16>(attributesFilled_ - first)};
}

void ForeignTable::fillGlue(ForeignType& type, ForeignEntityFunctions const& functions) {
    TypeGlue& glue = type.glue_;
    glue.foreign = &type;
    glue.spelling = type.description_.spelling.view();
    glue.genericIfVoidPtrIs = &GenericIfImpl::genericIfVoidPtrIs;
    if (!type.description_.isEntity()) return fillValueGlue(glue);
    glue.genericIfAttributeOp = functions.attributeOp;
    glue.stream = StreamTableRef(&type.table_);
}

}  // namespace Vel
