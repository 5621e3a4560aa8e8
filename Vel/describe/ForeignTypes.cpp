#include "Vel/describe/ForeignTypes.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/describe/internal/ForeignTable.h"

#include <algorithm>

namespace Vel {

using NboAttrLog::In;
using NboAttrLog::Out;
using Attribute = TypeDescription::Attribute;
using TypeForm = TypeDescription::Form;

struct ForeignTypes::Module {
    std::vector<std::unique_ptr<ForeignType>> types;
    ForeignTable table;
};

ForeignTypes::ForeignTypes(ForeignEntityFunctions const& functions) : functions_(functions) {}
ForeignTypes::~ForeignTypes() = default;

namespace {

bool hasOwnForm(U16 flags) { return flags & (TypeFlag::ownText | TypeFlag::ownStream); }

// Whether the attribute has a type that a source sends values of.
bool isSentPart(VelAttr attribute) {
    AttributeKind const kind = attribute.kind();
    return kind == AttributeKind::field || kind == AttributeKind::entityAttribute || kind == AttributeKind::collection;
}

// Bytes that a type takes with its tables and names.
std::size_t sizeOf(TypeDescription const& description) {
    constexpr std::size_t typeCost = sizeof(ForeignType) + 256, attributeCost = sizeof(Attribute) + 320;
    return typeCost + attributeCost * description.attributes.size() + 2 * description.spelling.size();
}

constexpr std::size_t rowCost = 2 * (sizeof(StreamAttribute) + sizeof(ForeignAttribute));

// Types with a byte form of their own say nothing about its length.
std::size_t defaultSizeOf(VelType type) {
    if (ForeignType const* const foreign = type.glue().foreign) return std::max<std::size_t>(1, foreign->defaultSize());
    GenericValue const value(type);
    Out out;
    type.glue().write(out, value.data());
    return std::max<std::size_t>(1, out.size());
}

}  // namespace

// --- modules ---

void ForeignTypes::add(ModuleDescription module) {
    for (TypeDescription const& type : module.types)
        if (told(type.name.view())) throwRangeException(format("the type %s is described twice", type.name.charPtr()));
    makeModule(std::move(module), told_);
}

void ForeignTypes::makeModule(ModuleDescription module, ByName& names) {
    auto made = std::make_unique<Module>();
    for (TypeDescription const& type : module.types) size_ += sizeOf(type);
    for (TypeDescription& type : module.types)
        made->types.push_back(std::make_unique<ForeignType>(*this, std::move(type)));
    made->table.make(module.name, module.fingerprint, made->types, functions_);
    for (auto const& type : made->types) names.emplace(type->description().name.stdString(), type.get());
    modules_.push_back(std::move(made));
}

ForeignType* ForeignTypes::told(std::string_view name) const {
    auto const found = told_.find(name);
    return found == told_.end() ? nullptr : found->second;
}

// A type of this process, as if the peer had described it.
ForeignType& ForeignTypes::borrowed(VelType local) {
    auto found = borrowed_.find(std::string_view(local.name()));
    if (found == borrowed_.end()) {
        makeModule(ModuleDescription::parsed(ModuleDescription::spellingOf(local.module()).view()), borrowed_);
        found = borrowed_.find(std::string_view(local.name()));
    }
    return *found->second;
}

ForeignType& ForeignTypes::described(std::string_view name) {
    if (ForeignType* const found = told(name)) return *found;
    VelType const local = Registry::type(name);
    if (!local || local.glue().foreign) throwRangeException("no description of " + String(name));
    return borrowed(local);
}

// --- types ---

// Whether the peer has the value type, and all that it is made of, as this process has it.
bool ForeignTypes::agrees(VelType local, unsigned depth) {
    if (depth > deepest) return false;
    if (ForeignType const* const other = told(local.name())) {
        if (hasOwnForm(other->description().flags) && !other->description().isEnumeration()) return false;
        if (other->description().spelling.view() != local.glue().spelling) return false;
    }
    for (U32 i = 0; i < local.attributeCount(); ++i) {
        VelAttr const field = local.attribute(i);
        if (field.kind() == AttributeKind::field && !agrees(field.valueType(), depth + 1)) return false;
    }
    return true;
}

VelType ForeignTypes::valueType(std::string_view name) {
    VelType const local = Registry::type(name);
    if (local && !local.isEntity() && agrees(local, 0)) return local;
    ForeignType& type = described(name);
    if (type.description().isEntity()) throwRangeException(String(name) + " is no type of values");
    resolve(type);
    return type.self();
}

VelType ForeignTypes::entityType(std::string_view name) {
    if (name == typeOf<Entity>().name()) return typeOf<Entity>();
    ForeignType& type = described(name);
    if (!type.description().isEntity()) throwRangeException(String(name) + " is no type of entities");
    resolve(type);
    return type.self();
}

bool ForeignTypes::isEntity(std::string_view name) {
    if (ForeignType const* const found = told(name)) return found->description().isEntity();
    VelType const local = Registry::type(name);
    if (!local) throwRangeException("no description of " + String(name));
    return local.isEntity();
}

bool ForeignTypes::isSame(VelType entityType) {
    for (VelType type = entityType; type; type = type.base()) {
        if (told(type.name())) return false;
        for (U32 i = 0; i < type.attributeCount(); ++i) {
            VelAttr const attribute = type.attribute(i);
            if (!isSentPart(attribute)) continue;
            for (VelType const part : {attribute.valueType(), attribute.keyType()})
                if (part && !part.isEntity() && (told(part.name()) || !agrees(part, 0))) return false;
        }
    }
    return true;
}

TypeDescription const& ForeignTypes::description(std::string_view entityType) {
    return described(entityType).description();
}

VelType ForeignTypes::find(std::string_view name) {
    try {
        if (!isEntity(name)) return valueType(name);
        VelType const local = Registry::type(name);
        return told(name) ? entityType(name) : local;
    } catch (RangeException const&) {
        return {};
    }
}

VelType ForeignTypes::inUse(std::string_view name) const {
    for (ByName const* const types : {&told_, &borrowed_})
        if (auto const found = types->find(name); found != types->end())
            return found->second->state_ == ForeignType::State::known ? found->second->self() : VelType();
    return {};
}

void ForeignTypes::resolve(ForeignType& type) {
    using State = ForeignType::State;
    if (type.state_ == State::known) return;
    char const* const name = type.description_.name.charPtr();
    if (type.state_ == State::beingSeen) throwRangeException(format("%s contains itself", name));
    if (type.state_ == State::bad) throwRangeException(format("%s cannot be used", name));
    // Many more than can be used are not even looked at, since each takes room on the stack.
    if (resolving_ > 2 * deepest) throwRangeException(format("%s is within too many other types", name));
    type.state_ = State::beingSeen;
    ++resolving_;
    try {
        if (type.description_.isEntity())
            resolveEntity(type);
        else
            resolveValue(type);
        type.state_ = State::known;
        --resolving_;
    } catch (...) {
        type.state_ = State::bad;
        --resolving_;
        throw;
    }
}

void ForeignTypes::resolveValue(ForeignType& type) {
    TypeDescription const& description = type.description_;
    if (description.form == TypeForm::scalar)
        throwRangeException(format("%s is a scalar that this process does not have", description.name.charPtr()));
    type.hasOwnForm_ = hasOwnForm(description.flags) && !description.isEnumeration();
    type.isDelimited_ = !(description.flags & TypeFlag::ownStream);
    type.isFixed_ = type.isDelimited_;
    if (!type.isDelimited_) return;
    for (Attribute const& attribute : description.attributes) {
        type.settled_.emplace_back();
        if (attribute.kind != AttributeKind::field) continue;
        VelType const part = valueType(attribute.valueType.view());
        type.settled_.back().value = part;
        type.fields_.push_back({attribute.name, part});
        ForeignType const* const nested = part.glue().foreign;
        type.isDelimited_ = type.isDelimited_ && (!nested || nested->isDelimited());
        type.isFixed_ = type.isFixed_ && (nested ? nested->isFixed() : part.hasFixedEncodedSize());
        type.defaultSize_ += defaultSizeOf(part);
        type.depth_ = std::max(type.depth_, nested ? nested->depth_ + 1 : 1u);
        if (type.defaultSize_ > largestValue || type.depth_ > deepest)
            throwRangeException(format("%s contains too much", description.name.charPtr()));
    }
    type.isFixed_ = type.isFixed_ && type.isDelimited_;
    VelType const first = type.fields_.front().type;
    if (description.isEnumeration() &&
        !(first == typeOf<U8>() || first == typeOf<U16>() || first == typeOf<U32>() || first == typeOf<U64>()))
        throwRangeException(format("%s is an enumeration of %s", description.name.charPtr(), first.name()));
}

void ForeignTypes::resolveEntity(ForeignType& type) {
    TypeDescription const& description = type.description_;
    type.base_ = typeOf<Entity>();
    if (!description.base.empty() && description.base.view() != typeOf<Entity>().name()) {
        ForeignType& base = described(description.base.view());
        if (!base.description_.isEntity()) throwRangeException(base.description_.name + " is no type of entities");
        resolve(base);
        type.base_ = base.self_;
        type.depth_ = base.depth_ + 1;
        if (type.depth_ > deepest) throwRangeException(format("%s has too many bases", description.name.charPtr()));
        type.last_ = base.last_;
        type.attributes_ = base.attributes_;
        type.rows_ = base.rows_;
        type.defaultSize_ = base.defaultSize_;
        rows_ += type.rows_.size();
        if (rows_ > mostRows) throwRangeException(format("descriptions of more than %zu attributes", mostRows));
    }
    for (Attribute const& attribute : description.attributes) {
        if (attribute.id <= type.last_)
            throwRangeException(format("%s has attributes with the numbers of its base", description.name.charPtr()));
        type.last_ = attribute.id;
        type.settled_.emplace_back();
        if (attribute.isStreamed()) addRow(type, attribute);
    }
    for (std::size_t i = 0; i < type.rows_.size(); ++i)
        if (!type.rows_[i].skips) type.rows_[i].context = &type.attributes_[i];
    type.table_.attributes = type.rows_;
    size_ += rowCost * type.rows_.size();
    type.table_.takesName = true;
    type.glue_.size = functions_.objectSize + functions_.attributeSize * type.rows_.size() + type.defaultSize_;
}

void ForeignTypes::addRow(ForeignType& type, Attribute const& attribute) {
    if (++rows_ > mostRows) throwRangeException(format("descriptions of more than %zu attributes", mostRows));
    bool const isCollection = attribute.kind == AttributeKind::collection;
    bool const areEntities = isEntity(attribute.valueType.view());
    if (isCollection && areEntities == (attribute.members == Members::values))
        throwRangeException(
            format("%s.%s has members of another kind", type.description_.name.charPtr(), attribute.name.charPtr()));
    StreamAttribute row{};
    row.id = row.localId = attribute.id;
    row.functions = functions_.stream;
    row.varies = row.adopts = true;
    ForeignAttribute context{typeOf<Entity>(), {}, StreamKind::value, type.rows_.size()};
    if (!areEntities) context.type = valueType(attribute.valueType.view());
    if (isCollection) {
        context.key = valueType(attribute.keyType.view());
        row.kind = attribute.members == Members::values      ? StreamKind::values
                   : attribute.members == Members::instances ? StreamKind::instances
                                                             : StreamKind::references;
        row.keyIsName = context.key == typeOf<String>();
        ForeignType const* const key = context.key.glue().foreign;
        if (key && !key->isDelimited()) {  // nobody here knows where the key ends
            if (areEntities)
                throwRangeException(format("%s.%s has keys with a byte form of their own",
                    type.description_.name.charPtr(), attribute.name.charPtr()));
            row.skips = true;
            row.functions = skippedFunctions();
        }
    } else {
        row.kind = areEntities ? StreamKind::pointer : StreamKind::value;
    }
    context.kind = row.kind;
    if (row.kind == StreamKind::value) context.plainSize = plainSizeOf(context.type);
    type.settled_.back() = {context.type, context.key};
    if (row.kind == StreamKind::value) type.defaultSize_ += defaultSizeOf(context.type);
    type.rows_.push_back(row);
    type.attributes_.push_back(context);
}

bool isSameType(VelType a, VelType b) {
    if (a == b) return true;
    if (!a || !b) return false;
    ForeignType const* const one = a.glue().foreign;
    ForeignType const* const other = b.glue().foreign;
    return one && other && one->isSame(*other);
}

}  // namespace Vel
