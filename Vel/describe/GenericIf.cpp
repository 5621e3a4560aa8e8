#include "Vel/describe/GenericIf.h"

#include "Vel/base/Assert.h"
#include "Vel/describe/ForeignTypes.h"
#include "Vel/describe/internal/Records.h"

#include <cstring>
#include <new>

namespace Vel {

// --- types ---

namespace {

char const* typeNameAt(ModuleHeader const& module, U32 offset) { return at<char>(module, module.typeNames + offset); }
char const* attributeNameAt(ModuleHeader const& module, U32 offset) {
    return at<char>(module, module.attributeNames + offset);
}

}  // namespace

char const* VelTypeBase::name() const { return typeNameAt(*module_, record().name); }
bool VelTypeBase::isPolymorphic() const { return record().flags & TypeFlag::polymorphic; }
bool VelTypeBase::isEntity() const { return record().flags & TypeFlag::entity; }

bool VelTypeBase::isDerived(VelTypeBase const& ancestor) const {
    for (VelTypeBase type = *this; type; type = type.base())
        if (type == ancestor) return true;
    return false;
}

std::string_view VelType::moduleName() const { return at<char>(module(), module().name); }
U64 VelType::moduleFingerprint() const { return module().fingerprint; }
std::size_t VelType::encodedSize() const { return record().encodedSize; }
bool VelType::hasFixedEncodedSize() const { return record().flags & TypeFlag::fixedSize; }
bool VelType::isHashable() const { return record().flags & TypeFlag::hashable; }

bool VelType::answers(AttributeOp op) const {
    auto const n = static_cast<U32>(op);
    auto const first = static_cast<U32>(AttributeOp::truth);
    return n >= first && n < first + 16 && (record().valueOps >> (n - first) & 1);
}

std::optional<VelAttr> VelType::attribute(std::string_view name) const {
    for (VelType type = *this; type; type = type.base())
        for (U32 i = 0; i < type.attributeCount(); ++i)
            if (name == type.attribute(i).name()) return type.attribute(i);
    return std::nullopt;
}

namespace {

std::string_view conversion(VelType type) {
    bool const isNumber = type.record().flags & TypeFlag::scalar && type.isHashable();  // no other scalar is hashable
    if (!isNumber) return "%s";
    return type.encodedSize() == sizeof(U64) ? "%lu" : "%u";
}

}  // namespace

String VelType::strepTemplate() const {
    U16 const flags = record().flags;
    if (flags & TypeFlag::entity) return {};
    if (flags & TypeFlag::scalar) return conversion(*this);
    if (flags & TypeFlag::ownText) return "%s";
    StrepOut out;
    bool const number = flags & TypeFlag::number;
    if (!number) out << "Value('" << name() << "', ** {";
    bool first = true;
    for (U32 i = 0; i < attributeCount(); ++i) {
        VelAttr const attr = attribute(i);
        if (attr.kind() != AttributeKind::field) continue;
        if (!number) out << (first ? "'" : ", '") << attr.name() << "': ";
        out << conversion(attr.valueType());
        first = false;
    }
    if (!number) out << "})";
    return out.str();
}

// --- attributes ---

char const* VelAttr::name() const { return attributeNameAt(*module_, nameOffset(record())); }
AttributeKind VelAttr::kind() const { return kindOf(record()); }
bool VelAttr::answers(AttributeOp op) const { return static_cast<U32>(op) < 22 && (opsOf(record()) & opBit(op)); }
VelTypeBase VelTypeBase::foreignBase(TypeGlue const& glue) { return glue.foreign->base(); }

VelType VelAttr::valueType() const {
    TypeGlue const& glue = type().glue();
    return glue.foreign ? glue.foreign->valueType(index_) : glue.attributes[index_].valueType();
}
VelType VelAttr::keyType() const {
    TypeGlue const& glue = type().glue();
    return glue.foreign ? glue.foreign->keyType(index_) : glue.attributes[index_].keyType();
}
VelType VelAttr::resultType() const {
    TypeGlue const& glue = type().glue();
    return glue.foreign ? glue.foreign->resultType(index_) : glue.attributes[index_].resultType();
}
CollectionIterator::~CollectionIterator() = default;

std::unique_ptr<CollectionIterator> VelAttr::iterator(void* object) const {
    TypeGlue const& glue = type().glue();
    auto* const iterate = glue.foreign ? nullptr : glue.attributes[index_].iterate;
    return iterate ? iterate(object) : nullptr;
}

U32 VelAttr::parameterCount() const { return record().parameterCount; }

char const* VelAttr::parameterName(U32 i) const {
    ModuleHeader const& module = *module_;
    return attributeNameAt(module, at<ParameterRecord>(module, module.parameters)[record().firstParameter + i].name);
}

VelType VelAttr::parameterType(U32 i) const {
    TypeGlue const& glue = type().glue();
    return glue.foreign ? glue.foreign->parameterType(index_, i) : glue.attributes[index_].parameterTypes[i]();
}

// --- the generic interface ---

void* GenericIfImpl::genericIfVoidPtrIs(void* object, VelType have, VelType want) {
    static constexpr char header[] = "/usr/include/Vel/GenericIfImpl";
    static constexpr char function[] =
        "static void* Vel::GenericIfImpl::genericIfVoidPtrIs(void*, Vel::VelType, Vel::VelType)";
    if (have == want) return object;
    if (!want.isDerived(have)) throwTypeException(want);
    if (have.isPolymorphic() == want.isPolymorphic()) return object;
    if (want.isPolymorphic()) {
        if (have.isPolymorphic()) assertionFailed("!t.isPolymorphic()", header, 61, function);
        return static_cast<char*>(object) + sizeof(void*);  // `have` begins after the virtual table pointer
    }
    assertionFailed("type.isPolymorphic()", header, 58, function);
}

void GenericIfImpl::throwTypeException(VelType type) {
    throw TypeException(type ? format("the operation does not apply to a value of type %s", type.name())
                             : String("the operation does not apply to a value without a type"));
}

void GenericIfImpl::throwUnhashableException(VelType type) {
    throw UnhashableException(format("values of type %s have no hash", type ? type.name() : "(none)"));
}

// --- generic values ---

namespace {

VelType checkedValueType(VelType type) {
    if (!type || type.isEntity()) GenericIfImpl::throwTypeException(type);
    return type;
}

void* allocateFor(VelType type) { return ::operator new(type.glue().size, std::align_val_t(type.glue().alignment)); }

}  // namespace

GenericValue::GenericValue(VelType type)
    : type_(checkedValueType(type)), storage_(allocateFor(type_), Free{type_.glue().alignment}) {
    TypeGlue const& glue = type_.glue();
    if (glue.foreign)
        glue.foreign->construct(data());
    else
        glue.genericIfConstruct(data(), nullptr);
}

GenericValue::GenericValue(VelType type, String const& text) : GenericValue(type) { textIs(text.view()); }

void GenericValue::textIs(std::string_view text) { type_.glue().genericIfTextToValue(data(), text, type_); }

GenericValue::GenericValue(VelType type, NboAttrLog::In& in) : GenericValue(type) { type_.glue().read(data(), in); }

GenericValue::GenericValue(GenericValue const& other)
    : type_(other.type_), storage_(allocateFor(type_), Free{type_.glue().alignment}) {
    type_.glue().genericIfConstruct(data(), other.data());
}

GenericValue& GenericValue::operator=(GenericValue other) noexcept {
    std::swap(type_, other.type_);
    storage_.swap(other.storage_);
    return *this;
}

GenericValue::~GenericValue() {
    if (storage_) type_.glue().genericIfDestruct(data());
}

std::optional<GenericValue> GenericValue::get(VelAttr attr) const {
    if (attr.kind() == AttributeKind::collection || !attr.answers(AttributeOp::get)) return std::nullopt;
    VelType const type = attr.valueType();
    if (!type || type.isEntity()) return std::nullopt;
    GenericValue result(type);
    int const code = type_.glue().genericIfAttributeOp(
        result.data(), const_cast<void*>(data()), attr, AttributeOp::get, nullptr, nullptr);
    if (code != 0) return std::nullopt;
    return result;
}

std::optional<bool> GenericValue::test(AttributeOp op, GenericValue const* other) const {
    bool const comparison = op == AttributeOp::equal || op == AttributeOp::less;
    if (op != AttributeOp::truth && !(comparison && other && other->type() == type_)) return std::nullopt;
    bool result = false;
    int const code = type_.glue().genericIfAttributeOp(
        &result, const_cast<void*>(data()), VelAttr(), op, other ? other->data() : nullptr, nullptr);
    if (code != 0) return std::nullopt;
    return result;
}

namespace Detail {

void throwStreamExceptionNaming(
    StreamException const& error, std::string_view typeName, std::string_view attributeName) {
    throw StreamException(format("%.*s.%.*s: %s", static_cast<int>(typeName.size()), typeName.data(),
                              static_cast<int>(attributeName.size()), attributeName.data(), error.what()),
        error.offset());
}

}  // namespace Detail

}  // namespace Vel
