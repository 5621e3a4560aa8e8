#include "Vel/stream/internal/PeerTypes.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/entity/ForeignEntity.h"
#include "Vel/stream/internal/StreamRefusal.h"
#include "Vel/text/PeerText.h"

namespace Vel {

using NboAttrLog::In;
using NboAttrLog::nextCompact;
using Attribute = TypeDescription::Attribute;

void PeerTypes::clear() {
    types_.clear();
    if (foreign_) former_.push_back(foreign_);
    foreign_ = nullptr;
    std::erase_if(former_, [](auto const& types) { return types.expired(); });
    formerSize_ = 0;
    for (auto const& types : former_)
        if (auto const there = types.lock()) formerSize_ += there->size();
    described_ = 0;
    tables_.clear();
    differences_.clear();
    noted_.clear();
    areExact_ = true;
}

void PeerTypes::describe(In& body) {
    String const name = body.nextString();
    U64 const fingerprint = body.nextU64();
    String const text = body.nextString();
    if (body.left() != 0) throw StreamException("a message with bytes behind its end", body.offset());
    if (policy_.isExact()) throw StreamException("a description that this reader has not asked for", 0);
    described_ += text.size();
    if (described_ > limits_.descriptions)
        throw StreamException(format("descriptions of more than %zu bytes", limits_.descriptions), 0);
    if (ModuleDescription::fingerprintOf(text.view()) != fingerprint)
        throw StreamException(
            format("the description of module %s has another fingerprint", peerText(name.view()).charPtr()), 0);
    ModuleDescription module = ModuleDescription::parsed(text.view());
    if (!(module.name == name)) throw StreamException("a description of another module", 0);
    if (!foreign_) foreign_ = std::make_shared<ForeignTypes>(ForeignEntity::functions());
    foreign_->add(std::move(module));
}

PeerTypes::Type const& PeerTypes::added(U32 index, Type type) {
    auto const [place, isNew] = types_.try_emplace(index, type);
    if (!isNew) throw StreamException(format("type %u is there already", index), 0);
    return place->second;
}

void PeerTypes::tell(In& body) {
    U32 const index = nextCompact(body);
    String const name = body.nextString();
    String const module = body.nextString();
    U64 const fingerprint = body.nextU64();
    if (body.left() != 0) throw StreamException("a message with bytes behind its end", body.offset());
    if (types_.size() >= limits_.types) throw StreamException("the source has too many types", 0);
    VelType const local = Registry::type(name);
    bool const isHere = local && local.isEntity() && local.glue().stream;
    bool const isSameModule = isHere && module == local.moduleName() && fingerprint == local.moduleFingerprint();
    if (isSameModule && (!foreign_ || foreign_->isSame(local))) {
        added(index, {local, &local.glue().stream()});
        return;
    }
    if (!isHere && !policy_.described)
        throw StreamRefusalException(
            {StreamFault::noSuchModule, "no module of the client has the entity type '" + peerText(name.view()) + "'"});
    if (isHere && policy_.isExact())
        throw StreamRefusalException({StreamFault::otherVersion,
            format("%s comes from module %s, fingerprint %016lx, at the server and from %s, %016lx, at the client",
                local.name(), peerText(module.view()).charPtr(), fingerprint, String(local.moduleName()).charPtr(),
                local.moduleFingerprint())});
    if (!foreign_) throw StreamException("a type that was not described", 0);
    VelType const theirs = foreign_->entityType(name.view());
    if (!theirs.glue().foreign || !(module == theirs.moduleName()) || fingerprint != theirs.moduleFingerprint())
        throw StreamException(format("the type %s comes from another module than its description", theirs.name()), 0);
    areExact_ = false;
    if (isHere && policy_.byName) {
        added(index, {local, &byName(theirs, local)});
    } else {
        VelType const type = inUse(theirs);
        added(index, {type, &type.glue().stream(), type.glue().foreign->types().shared_from_this()});
        noteForeign(type);
    }
}

// Returns the type of a former connection that is the same, if an entity may have it still. So however many connections
// there are, the entities of a type share one description.
VelType PeerTypes::inUse(VelType theirs) const {
    for (std::size_t i = 0; i < former_.size() && i < mostLookedAt; ++i) {
        auto const types = former_[i].lock();
        VelType const type = types ? types->inUse(theirs.name()) : VelType();
        if (type && isSameType(type, theirs)) return type;
    }
    return theirs;
}

bool PeerTypes::mayHold(VelType owner, StreamAttribute const& attribute, VelType type) {
    if (type.isDerived(attribute.type())) return true;
    if (areExact_) NboAttrLog::ensureCorrectType(type, attribute.type());
    auto const attr = owner.attributeOfId(attribute.localId);
    note(format("%s.%s", owner.name(), attr ? attr->name() : "?"),
        format("a %s is there at the server, which is no %s here: not copied", type.name(), attribute.type().name()));
    return false;
}

// --- by name ---

namespace {

// The type of an attribute as a text: U32, -> T for a pointer, {K: V} for a collection, {K -> T} for one of entities.
String shape(StreamKind kind, String const& value, String const& key) {
    if (kind == StreamKind::value) return value;
    if (kind == StreamKind::pointer) return "-> " + value;
    if (kind == StreamKind::values) return format("{%s: %s}", key.charPtr(), value.charPtr());
    return format(kind == StreamKind::instances ? "{%s => %s}" : "{%s -> %s}", key.charPtr(), value.charPtr());
}

String nameOf(VelType type) { return type ? String(type.name()) : String(); }

}  // namespace

// Returns the row for an attribute of the source: the one of this process that has its name and type, or one that skips
// it.
StreamAttribute PeerTypes::rowByName(
    Table& table, Attribute const& theirs, VelType owner, StreamAttribute const& described) {
    auto const* const context = static_cast<ForeignAttribute const*>(described.context);
    auto const attr = owner.attribute(theirs.name.view());
    StreamAttribute const* const ours = attr ? owner.glue().stream().find(attr->attributeId()) : nullptr;
    String const where = format("%s.%s", owner.name(), theirs.name.charPtr());
    if (ours && context) {
        VelType const key = ours->isCollection() ? attr->keyType() : VelType();
        bool const holdsEntities = ours->kind != StreamKind::value && ours->kind != StreamKind::values;
        String const type = nameOf(ours->type());
        bool const isSame = ours->kind == described.kind && key == context->key &&
                            (holdsEntities ? type == theirs.valueType : ours->type() == context->type);
        if (isSame) {
            StreamAttribute row = *ours;
            row.id = theirs.id;
            return row;
        }
        String const there = shape(described.kind, theirs.valueType, theirs.keyType);
        String const here = shape(ours->kind, type, nameOf(key));
        if (there == here)
            note(where, format("another version of %s at the server: not copied", there.charPtr()));
        else
            note(where, format("%s at the server, %s here: not copied", there.charPtr(), here.charPtr()));
    } else if (ours) {
        note(where, "its keys have a byte form of their own: not copied");
    } else {
        note(where, "only at the server: not copied");
    }
    StreamAttribute row{};
    row.id = theirs.id;
    row.kind = described.isCollection() ? StreamKind::values : StreamKind::value;
    row.skips = true;
    row.keyIsName = described.keyIsName;
    row.functions = skippedFunctions();
    if (context && context->key) row.context = &table.keys.emplace_back(context->key);
    return row;
}

StreamTable const& PeerTypes::byName(VelType foreign, VelType local) {
    auto const [place, isNew] = tables_.try_emplace(foreign.glue().foreign);
    Table& table = place->second;
    if (!isNew) return table.table;
    for (StreamAttribute const& described : foreign.glue().stream().attributes) {
        auto const attr = foreign.attributeOfId(described.id);
        TypeDescription const& owner = attr->type().glue().foreign->description();
        table.rows.push_back(rowByName(table, owner.attributes[attr->index()], local, described));
    }
    StreamTable const& ours = local.glue().stream();
    table.table = ours;
    table.table.attributes = table.rows;
    for (StreamAttribute const& row : ours.attributes)
        if (auto const attr = local.attributeOfId(row.id); attr && !foreign.attribute(attr->name()))
            note(format("%s.%s", local.name(), attr->name()), "only here: it keeps its value");
    return table.table;
}

// --- reports ---

void PeerTypes::noteForeign(VelType type) {
    for (StreamAttribute const& row : type.glue().stream().attributes) {
        auto const attr = type.attributeOfId(row.id);
        String const where = format("%s.%s", type.name(), attr ? attr->name() : "?");
        if (row.skips) {
            note(where, "its keys have a byte form of their own: not copied");
            continue;
        }
        VelType const value = row.type();
        ForeignType const* const foreign = value.glue().foreign;
        if (foreign && foreign->isShownAsBytes())
            note(where, format("%s has a form of its own: shown as bytes", value.name()));
    }
}

void PeerTypes::note(String const& where, String const& what) {
    String const line = where + ": " + what;
    if (differences_.size() >= mostDifferences || !noted_.insert(line.stdString()).second) return;
    differences_.push_back(line);
}

}  // namespace Vel
