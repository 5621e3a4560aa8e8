#include "Vel/stream/internal/AttrLogReplicaImpl.h"

#include "Vel/base/Exception.h"
#include "Vel/entity/ForeignEntity.h"
#include "Vel/stream/internal/StreamAdapter.h"
#include "Vel/stream/internal/StreamProtocol.h"
#include "Vel/stream/internal/StreamRefusal.h"
#include "Vel/stream/internal/ValueGroup.h"
#include "Vel/text/PeerText.h"

#include <algorithm>

namespace Vel {

using NboAttrLog::ensureCorrectType;
using NboAttrLog::In;
using NboAttrLog::MessageKind;
using NboAttrLog::nextCompact;

namespace {

bool isCreatable(VelType type) { return type.glue().foreign || type.glue().stream().isCreatable; }

Ptr<Entity> newEntity(VelType type, String const& name) {
    if (type.glue().foreign) return ForeignEntity::newEntity(type, name);
    return ptr_cast<Entity>(type.glue().newEntity(name, nullptr));
}

}  // namespace

AttrLogReplica::Impl::Impl(
    Ptr<Entity> root, Ptr<Dir> parent, String name, StreamPolicy policy, StreamLimits const& limits)
    : limits_(limits),
      parent_(std::move(parent)),
      name_(std::move(name)),
      root_(std::move(root)),
      types_(policy, limits),
      entities_(limits),
      nesting_(entities_, limits) {}

// --- connections ---

void AttrLogReplica::Impl::connected() {
    forgetSource();
    writes_.lost();
    welcomed_ = false;
    types_.clear();
    entities_.typesSizeIs(types_.size());
    entities_.recountBefore(root_.get());
    stateIs(State::syncing);
}

void AttrLogReplica::Impl::disconnected() {
    std::vector<Ptr<Entity>> const settled = this->settled(false);
    forgetSource();
    stateIs(root_ ? State::stale : State::empty);
    writes_.lost();
    for (Ptr<Entity> const& entity : settled) entity->notifieeList()->visitParent();
}

void AttrLogReplica::Impl::forgetSource() {
    ++connection_;
    mayWrite_ = false;
    rootId_ = 0;
    unmentioned_.clear();
    nesting_.clear();
    unplaced_.clear();
    entities_.disconnected();
}

void AttrLogReplica::Impl::stateIs(State state) {
    if (state == state_) return;
    state_ = state;
    if (onState_) onState_(state);
}

// --- messages ---

void AttrLogReplica::Impl::handleMessage(MessageKind kind, In& body) {
    if (kind == MessageKind::welcome && !welcomed_) return welcome(body);
    if (!welcomed_) throw StreamException("the source did not say welcome first", 0);
    switch (kind) {
    case MessageKind::value:
        return value(body);
    case MessageKind::values:
        return values(body);
    case MessageKind::keySet:
        return keySet(body);
    case MessageKind::keyDel:
        return keyDel(body);
    case MessageKind::announce:
        return announce(body);
    case MessageKind::type:
        types_.tell(body);
        return typesChanged();
    case MessageKind::description:
        types_.describe(body);
        return typesChanged();
    case MessageKind::gone:
        return gone(body);
    case MessageKind::keysAgain:
        return keysAgain(body);
    case MessageKind::keysEnd:
        return keysEnd(body);
    case MessageKind::answer:
        return writes_.answer(body);
    case MessageKind::synced:
        needEnd(body);
        return synced();
    default:
        throw StreamException(format("a source sends no message of kind %u", static_cast<unsigned>(kind)), 0);
    }
}

void AttrLogReplica::Impl::welcome(In& body) {
    if (U16 const version = body.nextU16(); version != streamVersion)
        throw StreamException(
            format("the source speaks version %u of the protocol, and this reader version %u", version, streamVersion),
            0);
    mayWrite_ = body.nextbool();
    needEnd(body);
    welcomed_ = true;
}

void AttrLogReplica::Impl::typesChanged() {
    if (types_.size() == 0) return;
    entities_.typesSizeIs(types_.size());
    entities_.needRoom(0);
}

void AttrLogReplica::Impl::value(In& body) {
    EntityId const owner = nextCompact(body);
    ReplicaEntities::Known const& target = entities_.known(owner);
    AttributeId const id = nextCompact(body);
    StreamAttribute const* const attribute = target.table->find(id);
    if (!attribute || attribute->isCollection())
        throw StreamException(format("%s has no value or pointer %u", target.entity->fwkType().name(), id), 0);
    Ptr<Entity> const keep = target.entity;
    StreamAdapter::needInactive(*keep);
    In items({body.data(), body.left()}, &entities_);
    if (attribute->kind == StreamKind::value) {
        if (!attribute->varies) return attribute->apply(*keep, items);
        std::size_t const before = ReplicaSize::ofValue(*attribute, *keep);
        entities_.needRoom(items.left());
        attribute->apply(*keep, items);
        return entities_.sizeChanged(owner, before, ReplicaSize::ofValue(*attribute, *keep));
    }
    Entity* const pointee = items.nextEntity();
    needEnd(items);
    bool const fits = !pointee || types_.mayHold(keep->fwkType(), *attribute, pointee->fwkType());
    attribute->targetIs(*keep, fits ? pointee : nullptr);
}

void AttrLogReplica::Impl::values(In& body) {
    EntityId const owner = nextCompact(body);
    ReplicaEntities::Known const& target = entities_.known(owner);
    Ptr<Entity> const keep = target.entity;
    StreamAdapter::needInactive(*keep);
    ValueGroup group(*keep, *target.table);
    std::vector<StreamAttribute const*> varying;
    entities_.needRoom(body.left());
    do {
        StreamAttribute const& attribute = group.nextAttribute(body);
        group.nextSizedValue(body);
        if (attribute.varies) varying.push_back(&attribute);
    } while (body.left() != 0);
    auto const size = [&] {
        std::size_t sum = 0;
        for (StreamAttribute const* const attribute : varying) sum += ReplicaSize::ofValue(*attribute, *keep);
        return sum;
    };
    std::size_t const before = size();
    group.set();
    entities_.sizeChanged(owner, before, size());
}

// Reads a place: an entity, its attribute, and for a collection the key. The rest of the message is left in `body`.
ReplicaPlace AttrLogReplica::Impl::place(In& body) {
    ReplicaPlace place;
    place.id = nextCompact(body);
    ReplicaEntities::Known const& owner = entities_.known(place.id);
    place.entity = owner.entity;
    StreamAdapter::needInactive(*place.entity);
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

void AttrLogReplica::Impl::announce(In& body) {
    EntityId const id = nextCompact(body);
    PeerTypes::Type const* const found = types_.find(nextCompact(body));
    if (id == 0 || entities_.find(id)) throw StreamException(format("entity %u can't be announced", id), 0);
    if (!found) throw StreamException("an entity of a type that was not told of", 0);
    if (entities_.count() >= limits_.entities) throw StreamException("the source has too many entities", 0);
    VelType const type = found->type;
    StreamTable const& table = *found->table;
    ReplicaPlace place;
    if (In ahead = body; nextCompact(ahead) == 0)
        body = ahead;
    else
        place = this->place(body);
    bool const instantiated = place.attribute && place.attribute->kind == StreamKind::instances;
    bool const tellsName =
        types_.areExact() ? table.takesName && !(instantiated && type == place.attribute->type()) : body.left() != 0;
    String name = tellsName ? body.nextString() : String();
    needEnd(body);
    if (!types_.areExact()) placeOther(type, tellsName, place, name);
    if (place.attribute) {
        if (place.attribute->kind == StreamKind::values) throw StreamException("an entity where values belong", 0);
        ensureCorrectType(type, place.attribute->type());
    }
    entities_.needRoom(ReplicaSize::ofNew(type, name.length()) + ReplicaSize::keyCost + place.key.size());
    if (rootId_ == 0) {  // the first one has no place, since no entity is known yet
        bind(id, rootOf(type), table);
        rootId_ = id;
    } else {
        if (!isCreatable(type)) throw StreamException(format("%s can't be created", type.name()), 0);
        bind(id, announced(type, place, name), table);
    }
    isForKey_ = place.attribute && place.attribute->kind == StreamKind::references;
    nesting_.putLoosened();
}

// An entity may be announced at a place that this process does not have, or has otherwise: then it has no place here.
// If no name was told, the key is the name.
void AttrLogReplica::Impl::placeOther(VelType type, bool tellsName, ReplicaPlace& place, String& name) {
    if (!place.attribute) return;
    bool const skips = place.attribute->skips;
    if (!tellsName && place.attribute->keyIsName && (skips || place.attribute->kind == StreamKind::instances))
        name = place.keyIn().nextString();
    if (skips || (place.attribute->kind != StreamKind::values &&
                     !types_.mayHold(place.entity->fwkType(), *place.attribute, type)))
        place = {};
}

Ptr<Entity> AttrLogReplica::Impl::rootOf(VelType type) {
    if (!parent_) {
        if (!isSameType(root_->fwkType(), type))
            throw StreamException(
                format("the source serves a %s, which can't be copied into a %s", type.name(), root_->fwkType().name()),
                0);
        return root_;
    }
    Ptr<Entity> there = parent_->entry(name_);
    if (there && isSameType(there->fwkType(), type)) return root_ = there;
    if (!isCreatable(type)) throw StreamException(format("%s can't be created", type.name()), 0);
    if (there) parent_->entryDel(name_);
    root_ = newEntity(type, name_);
    parent_->entryIs(root_);
    return root_;
}

// Returns the entity that is at the place already, or a new one. An existing entity is kept only before the sync mark,
// and if it has the same type and name. If it has an id already, it is another entity: the source has deleted that one
// and made this one.
Ptr<Entity> AttrLogReplica::Impl::announced(VelType type, ReplicaPlace const& place, String const& name) {
    bool const instantiated = place.attribute && place.attribute->kind == StreamKind::instances;
    Ptr<Entity> const there = place.attribute ? place.there() : nullptr;
    bool const namesDiffer = !name.empty() && there && !(there->name() == name);
    bool const mayBeIt = state_ == State::syncing && !namesDiffer;
    if (there && mayBeIt && isSameType(there->fwkType(), type) && entities_.idOf(there.get()) == 0) {
        if (instantiated) told(place);
        return there;
    }
    if (!instantiated) {
        Ptr<Entity> made = newEntity(type, name);
        made->awaitsPlaceIs(state_ == State::syncing);
        return made;
    }
    if (!there) entities_.sizeChanged(place.id, 0, ReplicaSize::keyCost + place.key.size());
    told(place);
    return nesting_.loosen(there.get(), [&] { return instantiate(type, place, name, there.get()); });
}

// Makes a new member of a collection that makes its members. It replaces an old one in one step if the collection can
// do that, so that observers are notified once.
Ptr<Entity> AttrLogReplica::Impl::instantiate(
    VelType type, ReplicaPlace const& place, String const& name, Entity* there) {
    StreamAttribute const& attribute = *place.attribute;
    bool const isOwnType = type == attribute.type();
    bool const replaces = there && attribute.adopts && attribute.keyIsName && type.glue().stream().takesName;
    if (there && !replaces) place.del();
    In key = place.keyIn();
    if (isOwnType && !replaces) {
        Ptr<Entity> const made = attribute.memberNew(*place.entity, key);
        if (!made || made->fwkType() != type) throw StreamException("a collection made another type than its own", 0);
        return made;
    }
    Ptr<Entity> const made = newEntity(type, isOwnType ? key.nextString() : name);
    place.replacementIs(*made);
    return made;
}

// Gives an entity its id. The keys that it has already are noted, those also that a new one has made in its
// constructor: those that the source does not mention have gone.
void AttrLogReplica::Impl::bind(EntityId id, Ptr<Entity> entity, StreamTable const& table) {
    // A foreign entity may be of the type that a former connection has described in the same way.
    VelType const own = entity->fwkType();
    StreamTable const& rows = own.glue().foreign ? own.glue().stream() : table;
    if (entity->awaitsPlace()) awaitsPlace(id);
    StreamAttribute const* last = nullptr;
    UnmentionedKeys::Keys* keys = nullptr;
    entities_.add(id, std::move(entity), rows, [&](StreamAttribute const& attribute, std::span<U8 const> key) {
        if (std::exchange(last, &attribute) != &attribute) keys = &unmentioned_.of(id, attribute.id);
        keys->emplace(reinterpret_cast<char const*>(key.data()), key.size());
    });
}

// --- collections ---

ReplicaPlace AttrLogReplica::Impl::collection(In& body) {
    ReplicaPlace place;
    place.id = nextCompact(body);
    ReplicaEntities::Known const& owner = entities_.known(place.id);
    place.entity = owner.entity;
    AttributeId const id = nextCompact(body);
    place.attribute = owner.table->find(id);
    needEnd(body);
    if (!place.attribute || !place.attribute->isCollection())
        throw StreamException(format("%s has no collection %u", place.entity->fwkType().name(), id), 0);
    return place;
}

void AttrLogReplica::Impl::keysAgain(In& body) {
    if (ReplicaPlace const place = collection(body); !place.attribute->skips) unmentioned_.beginAgain(place);
}

// Deletes the members that did not come again, now or at the sync mark if that is still to come.
void AttrLogReplica::Impl::keysEnd(In& body) {
    ReplicaPlace const place = collection(body);
    if (place.attribute->skips) return;
    if (!unmentioned_.comesAgain(place)) throw StreamException("the end of keys that did not come again", 0);
    if (state_ == State::syncing) return;
    delUnmentioned(place.id, place.attribute->id, unmentioned_.endAgain(place));
    nesting_.putLoosened();
}

void AttrLogReplica::Impl::delUnmentioned(EntityId id, AttributeId attribute, UnmentionedKeys::Keys const& keys) {
    ReplicaEntities::Known const* const owner = entities_.find(id);
    if (!owner) return;
    ReplicaPlace place{id, owner->entity, owner->table->find(attribute)};
    StreamAdapter::needInactive(*place.entity);
    for (std::string const& key : keys) {
        place.keyTextIs(key);
        if (place.attribute->kind == StreamKind::values)
            valueDel(place);
        else
            nesting_.del(place);
    }
}

// Called when the source has said what is at the place now.
void AttrLogReplica::Impl::told(ReplicaPlace const& place, bool isThere) {
    unmentioned_.mentioned(place, isThere);
    nesting_.told(place);
}

void AttrLogReplica::Impl::keySet(In& body) {
    ReplicaPlace const place = this->place(body);
    if (!place.attribute->isCollection()) throw StreamException("a key of what is no collection", 0);
    if (place.attribute->skips) return;
    if (place.attribute->kind == StreamKind::values) return keyValue(place, body);
    EntityId const id = nextCompact(body);
    bool const isForKey = std::exchange(isForKey_, false);
    Ptr<Entity> const member = entities_.known(id).entity;
    needEnd(body);
    if (!types_.mayHold(place.entity->fwkType(), *place.attribute, member->fwkType())) {
        told(place, false);
        nesting_.del(place);
        return nesting_.putLoosened();
    }
    told(place);
    Entity* const there = place.there();
    if (!there) entities_.needRoom(ReplicaSize::keyCost + place.key.size());
    if (there != member.get()) nesting_.put(place, id, *member);
    nesting_.isThere(place, id, *member);
    // Nobody has seen it without its place. So its place is no news at the sync mark.
    if (isForKey && !member->awaitsPlace() && !unplaced_.empty() && unplaced_.back() == id) unplaced_.pop_back();
    nesting_.putLoosened();
}

void AttrLogReplica::Impl::keyDel(In& body) {
    ReplicaPlace const place = this->place(body);
    needEnd(body);
    if (!place.attribute->isCollection()) throw StreamException("a key of what is no collection", 0);
    if (place.attribute->skips) return;
    told(place, false);
    if (place.attribute->kind == StreamKind::values) return valueDel(place);
    nesting_.del(place);
    nesting_.putLoosened();
}

void AttrLogReplica::Impl::keyValue(ReplicaPlace const& place, In& body) {
    StreamAttribute const& attribute = *place.attribute;
    bool const isNew = !place.holdsValue();
    if (isNew) entities_.needKey();
    bool const resizes = isNew || attribute.varies;
    std::size_t const before = isNew || !resizes ? 0 : ReplicaSize::ofKey(attribute, *place.entity, place.key);
    if (resizes) entities_.needRoom(ReplicaSize::keyCost + place.key.size() + body.left());
    In key = place.keyIn();
    In items({body.data(), body.left()});
    attribute.applyKey(*place.entity, key, items);
    unmentioned_.mentioned(place, true);
    if (resizes && place.holdsValue())
        entities_.sizeChanged(place.id, before, ReplicaSize::ofKey(attribute, *place.entity, place.key));
    if (isNew) entities_.keyAdded(place.id);
}

void AttrLogReplica::Impl::valueDel(ReplicaPlace const& place) {
    if (!place.holdsValue()) return;
    std::size_t const size = ReplicaSize::ofKey(*place.attribute, *place.entity, place.key);
    place.del();
    entities_.sizeChanged(place.id, size, 0);
    entities_.keyDeleted(place.id);
}

void AttrLogReplica::Impl::gone(In& body) {
    EntityId const id = nextCompact(body);
    needEnd(body);
    if (id == rootId_) throw StreamException("the root can't go", 0);
    nesting_.gone(id);
    unmentioned_.gone(id);
    entities_.del(id);
}

void AttrLogReplica::Impl::synced() {
    U64 const connection = connection_;
    unmentioned_.take([this](EntityId id, AttributeId attribute, UnmentionedKeys::Keys const& keys) {
        delUnmentioned(id, attribute, keys);
    });
    entities_.synced();
    nesting_.putAll();
    for (Ptr<Entity> const& entity : settled(true)) entity->notifieeList()->visitParent();
    if (connection == connection_) stateIs(State::synced);  // unless an observer has ended it
}

void AttrLogReplica::Impl::awaitsPlace(EntityId id) {
    // A source may announce what it takes away again, without end.
    if (unplaced_.size() > 2 * entities_.count() + 64) {
        std::sort(unplaced_.begin(), unplaced_.end());
        unplaced_.erase(std::unique(unplaced_.begin(), unplaced_.end()), unplaced_.end());
        std::erase_if(unplaced_, [&](EntityId known) { return !entities_.find(known); });
    }
    unplaced_.push_back(id);
}

// Returns entities that do not await their places any more: those that have got one, and if the copy is complete, all.
// The others await it until the next connection has synced.
std::vector<Ptr<Entity>> AttrLogReplica::Impl::settled(bool isComplete) {
    std::vector<Ptr<Entity>> settled;
    for (EntityId const id : std::exchange(unplaced_, {})) {
        ReplicaEntities::Known const* const known = entities_.find(id);
        if (!known) continue;
        if (isComplete) known->entity->awaitsPlaceIs(false);
        if (!known->entity->awaitsPlace()) settled.push_back(known->entity);
    }
    return settled;
}

}  // namespace Vel
