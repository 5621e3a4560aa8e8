#include "Vel/AttrLogReplica.h"

#include "Vel/Exception.h"
#include "Vel/Module.h"
#include "Vel/StreamProtocol.h"

namespace Vel {

using NboAttrLog::Compact;
using NboAttrLog::compactSize;
using NboAttrLog::ensureCorrectType;
using NboAttrLog::In;
using NboAttrLog::MessageKind;
using NboAttrLog::nextCompact;
using NboAttrLog::Out;

struct AttrLogReplica::Place {
    EntityId id = 0;
    Ptr<Entity> entity;  // kept, whatever observers do
    StreamAttribute const* attribute = nullptr;
    std::span<U8 const> key{};

    In keyIn() const { return In(key); }
    Entity* there() const {
        if (attribute->kind == StreamKind::pointer) return attribute->target(*entity);
        In in(key);
        return attribute->member(*entity, in);
    }
    void del() const {
        In in(key);
        attribute->memberDel(*entity, in);
    }
    bool holdsValue() const {
        In in(key);
        return attribute->holds(*entity, in);
    }
};

AttrLogReplica::AttrLogReplica(Ptr<Entity> root, Options options)
    : StreamPeer(options.limits), options_(std::move(options)), root_(std::move(root)) {}
AttrLogReplica::AttrLogReplica(Ptr<Dir> parent, String name, Options options)
    : StreamPeer(options.limits), options_(std::move(options)), parent_(std::move(parent)), name_(std::move(name)) {}
AttrLogReplica::~AttrLogReplica() = default;

// --- connections ---

void AttrLogReplica::connected() {
    reset();
    welcomed_ = mayWrite_ = false;
    types_.clear();
    ids_.clear();
    unmentioned_.clear();
    known_.clear();
    keys_ = 0;
    Out& out = controlOut().begin(MessageKind::hello, 0);
    auto const modules = Registry::modules();
    out << streamMagic << streamVersion << options_.wantsToWrite << options_.path << static_cast<U32>(modules.size());
    for (ModuleHeader const* const module : modules) {
        VelType const any(module, 0);
        out << String(any.moduleName()) << any.moduleFingerprint();
    }
    controlOut().commit();
    stateIs(State::syncing);
}

void AttrLogReplica::closed(String const& reason) {
    StreamPeer::closed(reason);
    unmentioned_.clear();
    ids_.clear();
    known_.clear();
    mayWrite_ = false;
    stateIs(root_ ? State::stale : State::empty);
}

void AttrLogReplica::stateIs(State state) {
    if (state == state_) return;
    state_ = state;
    if (onState_) onState_(state);
}

// --- messages ---

namespace {

void needEnd(In const& in) {
    if (in.left() != 0) throw StreamException("a message with bytes behind its end", in.offset());
}

}  // namespace

void AttrLogReplica::handleMessage(MessageKind kind, In& body) {
    if (kind == MessageKind::welcome && !welcomed_) {
        if (U16 const version = body.nextU16(); version != streamVersion)
            throw StreamException(format("the source speaks version %u of the protocol", version), 0);
        mayWrite_ = body.nextbool();
        needEnd(body);
        welcomed_ = true;
        return;
    }
    if (!welcomed_) throw StreamException("the source did not say welcome first", 0);
    switch (kind) {
    case MessageKind::value:
        return value(body);
    case MessageKind::keySet:
        return keySet(body);
    case MessageKind::keyDel:
        return keyDel(body);
    case MessageKind::announce:
        return announce(body);
    case MessageKind::type:
        return type(body);
    case MessageKind::gone:
        return gone(body);
    case MessageKind::synced:
        needEnd(body);
        return synced();
    default:
        throw StreamException(format("a source sends no message of kind %u", static_cast<unsigned>(kind)), 0);
    }
}

void AttrLogReplica::type(In& body) {
    U32 const index = nextCompact(body);
    String const name = body.nextString();
    String const module = body.nextString();
    U64 const fingerprint = body.nextU64();
    needEnd(body);
    if (types_.size() >= limits().types) throw StreamException("the source has too many types", 0);
    VelType const type = Registry::type(name);
    if (!type || !type.isEntity() || !type.glue().stream)
        throw StreamException(format("no module here has the entity type %s", valueToStrep(name).charPtr()), 0);
    if (!(module == type.moduleName()) || fingerprint != type.moduleFingerprint())
        throw StreamException(
            format("%s comes from module %s, fingerprint %016lx, there and from %s, %016lx, here", name.charPtr(),
                module.charPtr(), fingerprint, String(type.moduleName()).charPtr(), type.moduleFingerprint()),
            0);
    if (!types_.try_emplace(index, type).second) throw StreamException(format("type %u is there already", index), 0);
}

Entity* AttrLogReplica::entity(EntityId id) {
    auto const found = known_.find(id);
    return found == known_.end() ? nullptr : found->second.entity.get();
}

AttrLogReplica::Known& AttrLogReplica::known(EntityId id) {
    auto const found = known_.find(id);
    if (found == known_.end()) throw StreamException(format("entity %u was not announced", id), 0);
    return found->second;
}

void AttrLogReplica::value(In& body) {
    Known const& target = known(nextCompact(body));
    AttributeId const id = nextCompact(body);
    StreamAttribute const* const attribute = target.table->find(id);
    if (!attribute || attribute->isCollection())
        throw StreamException(format("%s has no value or pointer %u", target.entity->fwkType().name(), id), 0);
    Ptr<Entity> const keep = target.entity;
    In items({body.data(), body.left()}, this);
    if (attribute->kind == StreamKind::value) return attribute->apply(*keep, items);
    Entity* const pointee = items.nextEntity();
    needEnd(items);
    if (pointee) ensureCorrectType(pointee->fwkType(), attribute->type());
    attribute->targetIs(*keep, pointee);
}

// An entity's collection, and the key, which the message goes on behind.
AttrLogReplica::Place AttrLogReplica::place(In& body) {
    Place place;
    place.id = nextCompact(body);
    Known const& owner = known(place.id);
    place.entity = owner.entity;
    AttributeId const id = nextCompact(body);
    place.attribute = owner.table->find(id);
    if (!place.attribute || place.attribute->kind == StreamKind::value)
        throw StreamException(format("%s has no references at %u", place.entity->fwkType().name(), id), 0);
    if (!place.attribute->isCollection()) return place;
    U8 const* const key = body.data();
    place.attribute->skipKey(body);
    place.key = {key, static_cast<std::size_t>(body.data() - key)};
    return place;
}

void AttrLogReplica::announce(In& body) {
    EntityId const id = nextCompact(body);
    auto const found = types_.find(nextCompact(body));
    if (id == 0 || known_.contains(id)) throw StreamException(format("entity %u can't be announced", id), 0);
    if (found == types_.end()) throw StreamException("an entity of a type that was not told of", 0);
    if (known_.size() >= limits().entities) throw StreamException("the source has too many entities", 0);
    VelType const type = found->second;
    StreamTable const& table = type.glue().stream();
    Place place;
    if (In ahead = body; nextCompact(ahead) == 0)
        body = ahead;
    else
        place = this->place(body);
    bool const instantiated = place.attribute && place.attribute->kind == StreamKind::instances;
    bool const tellsName = table.takesName && !(instantiated && type == place.attribute->type());
    String const name = tellsName ? body.nextString() : String();
    needEnd(body);
    if (place.attribute) {
        if (place.attribute->kind == StreamKind::values) throw StreamException("an entity where values belong", 0);
        ensureCorrectType(type, place.attribute->type());
    }
    bool isNew = false;
    if (id == rootId) {
        if (place.attribute) throw StreamException("the root is below another entity", 0);
        bind(id, rootOf(type, isNew), isNew);
    } else {
        if (!table.isCreatable) throw StreamException(format("%s can't be created", type.name()), 0);
        bind(id, announced(type, place, name, isNew), isNew);
    }
}

Ptr<Entity> AttrLogReplica::rootOf(VelType type, bool& isNew) {
    if (!parent_) {
        if (root_->fwkType() != type)
            throw StreamException(
                format("the source serves a %s, which can't be copied into a %s", type.name(), root_->fwkType().name()),
                0);
        return root_;
    }
    Ptr<Entity> there = parent_->entry(name_);
    if (there && there->fwkType() == type) return root_ = there;
    if (!type.glue().stream().isCreatable) throw StreamException(format("%s can't be created", type.name()), 0);
    if (there) parent_->entryDel(name_);
    isNew = true;
    return root_ = parent_->createEntity(type, name_);
}

// The entity that is there already, in the same place and of the same type, or a new one.
Ptr<Entity> AttrLogReplica::announced(VelType type, Place const& place, String const& name, bool& isNew) {
    bool const instantiated = place.attribute && place.attribute->kind == StreamKind::instances;
    Ptr<Entity> const there = place.attribute ? place.there() : nullptr;
    bool const namesDiffer = !name.empty() && there && !(there->name() == name);
    bool const mayBeIt = state_ == State::syncing && !namesDiffer;
    if (there && mayBeIt && there->fwkType() == type && !checkEphemeralEntityDeletion(place, there.get())) {
        if (instantiated) mentioned(place);
        return there;
    }
    isNew = true;
    if (!instantiated) return ptr_cast<Entity>(type.glue().newEntity(name, nullptr));
    if (there) place.del();
    mentioned(place);
    In key = place.keyIn();
    if (type == place.attribute->type()) {
        Ptr<Entity> const made = place.attribute->memberNew(*place.entity, key);
        if (!made || made->fwkType() != type) throw StreamException("a collection made another type than its own", 0);
        return made;
    }
    Ptr<Entity> const made = ptr_cast<Entity>(type.glue().newEntity(name, nullptr));
    place.attribute->memberIs(*place.entity, key, *made);
    return made;
}

// Whether what is there was told of already under another id: then it has gone at the source, and another has come.
bool AttrLogReplica::checkEphemeralEntityDeletion(Place const&, Entity* there) { return ids_.contains(there); }

void AttrLogReplica::bind(EntityId id, Ptr<Entity> entity, bool isNew) {
    StreamTable const& table = entity->fwkType().glue().stream();
    std::size_t valueKeys = 0;
    if (!isNew) {
        Out key;
        for (StreamAttribute const& attribute : table.attributes) {
            if (!attribute.isCollection()) continue;
            std::unique_ptr<NboAttrLog::Bookmark> const keys(attribute.bookmark(*entity));
            if (keys->left() == 0) continue;
            if (attribute.kind == StreamKind::values) valueKeys += keys->left();
            auto& unmentioned = unmentioned_[{id, attribute.id}];
            while (keys->left() != 0) {
                key.clear();
                keys->next(key);
                unmentioned.emplace(reinterpret_cast<char const*>(key.data()), key.size());
            }
        }
    }
    ids_.emplace(entity.get(), id);
    known_.emplace(id, Known{std::move(entity), &table, valueKeys});
    keys_ += valueKeys;
}

// --- collections ---

void AttrLogReplica::mentioned(Place const& place) {
    if (unmentioned_.empty()) return;
    auto const keys = unmentioned_.find({place.id, place.attribute->id});
    if (keys == unmentioned_.end()) return;
    auto const key =
        keys->second.find(std::string_view(reinterpret_cast<char const*>(place.key.data()), place.key.size()));
    if (key != keys->second.end()) keys->second.erase(key);
}

void AttrLogReplica::keySet(In& body) {
    Place const place = this->place(body);
    if (!place.attribute->isCollection()) throw StreamException("a key of what is no collection", 0);
    if (place.attribute->kind == StreamKind::values) return keyValue(place, body);
    Ptr<Entity> const member = known(nextCompact(body)).entity;
    needEnd(body);
    ensureCorrectType(member->fwkType(), place.attribute->type());
    Entity* const there = place.there();
    mentioned(place);
    if (there == member.get()) return;
    if (there) place.del();
    put(place, *member);
}

namespace {

// Takes the entity out of the collection by which its parent owns it.
void detach(Entity& entity) {
    Ptr<Entity> const parent = entity.parent();
    if (!parent || !parent->fwkType().glue().stream) return;
    Out key;
    key << entity.name();
    for (StreamKind const kind : {StreamKind::instances, StreamKind::references}) {
        for (StreamAttribute const& attribute : parent->fwkType().glue().stream().attributes) {
            if (attribute.kind != kind || !attribute.keyIsName) continue;
            In look(key.bytes());
            if (attribute.member(*parent, look) != &entity) continue;
            In del(key.bytes());
            attribute.memberDel(*parent, del);
            if (entity.parent() != parent) return;
        }
    }
}

}  // namespace

// Where an entity has moved, what made room for it may be told later than where it went.
void AttrLogReplica::put(Place const& place, Entity& member) {
    In key = place.keyIn();
    auto const makeRoom = [&] {
        for (Ptr<Entity> above = place.entity; above; above = above->parent())
            if (above == &member) throw StreamException("an entity within itself", 0);
        if (member.parent() && place.entity != member.parent()) detach(member);
    };
    if (place.attribute->kind == StreamKind::instances) makeRoom();
    try {
        place.attribute->memberIs(*place.entity, key, member);
    } catch (StreamException const&) {
        throw;
    } catch (RangeException const&) {
        for (Ptr<Entity> above = place.entity; above; above = above->parent())
            if (above->parent() == &member) detach(*above);
        makeRoom();
        In again = place.keyIn();
        place.attribute->memberIs(*place.entity, again, member);
    }
}

void AttrLogReplica::keyDel(In& body) {
    Place const place = this->place(body);
    needEnd(body);
    if (!place.attribute->isCollection()) throw StreamException("a key of what is no collection", 0);
    mentioned(place);
    if (place.attribute->kind == StreamKind::values) return valueDel(place);
    place.del();
}

void AttrLogReplica::keyValue(Place const& place, In& body) {
    bool const isNew = !place.holdsValue();
    if (isNew && keys_ >= limits().keys) throw StreamException("the source has too many keys", 0);
    In key = place.keyIn();
    In items({body.data(), body.left()});
    place.attribute->applyKey(*place.entity, key, items);
    mentioned(place);
    if (!isNew) return;
    auto const owner = known_.find(place.id);  // looked up again: observers were told
    if (owner == known_.end()) return;
    ++owner->second.keys;
    ++keys_;
}

// Keys that something else has put into the copy, or taken out, were not counted.
void AttrLogReplica::valueDel(Place const& place) {
    if (!place.holdsValue()) return;
    place.del();
    auto const owner = known_.find(place.id);
    if (owner == known_.end() || owner->second.keys == 0) return;
    --owner->second.keys;
    --keys_;
}

void AttrLogReplica::gone(In& body) {
    EntityId const id = nextCompact(body);
    needEnd(body);
    if (id == rootId) throw StreamException("the root can't go", 0);
    Ptr<Entity> const entity = known(id).entity;
    keys_ -= known(id).keys;
    ids_.erase(entity.get());
    known_.erase(id);
}

void AttrLogReplica::synced() {
    if (state_ != State::syncing) throw StreamException("synchronised twice", 0);
    for (auto const& [at, keys] : std::exchange(unmentioned_, {})) {
        auto const owner = known_.find(at.first);
        if (owner == known_.end()) continue;
        Place place{at.first, owner->second.entity, owner->second.table->find(at.second)};
        for (std::string const& key : keys) {
            place.key = {reinterpret_cast<U8 const*>(key.data()), key.size()};
            if (place.attribute->kind == StreamKind::values)
                valueDel(place);
            else
                place.del();
        }
    }
    stateIs(State::synced);
}

// --- changes for the source ---

void AttrLogReplica::write(Entity const& entity, AttributeId id, VelType type, void const* value) {
    if (!mayWrite_) throw ReadOnlyException(entity.path() + " is mounted read-only and takes no changes");
    auto const found = ids_.find(&entity);
    StreamAttribute const* const attribute =
        found == ids_.end() ? nullptr : known_.find(found->second)->second.table->find(id);
    if (!attribute || attribute->kind != StreamKind::value)
        throwRangeException(format("%s has no value %u that its source sends", entity.path().charPtr(), id));
    if (type != attribute->type()) GenericIfImpl::throwTypeException(type);
    EntityId const target = found->second;
    std::size_t const size = compactSize(target) + compactSize(id) + type.glue().attrLogSize(value);
    sendControl(MessageKind::write, size, [&](Out& out) {
        out << Compact{target} << Compact{id};
        type.glue().write(out, value);
    });
}

}  // namespace Vel
