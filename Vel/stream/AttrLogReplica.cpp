#include "Vel/stream/AttrLogReplica.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/stream/internal/ReplicaSize.h"
#include "Vel/stream/internal/StreamAdapter.h"
#include "Vel/stream/internal/StreamProtocol.h"
#include "Vel/stream/internal/StreamRefusal.h"
#include "Vel/text/PeerText.h"

#include <algorithm>

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
    std::string_view keyText() const { return {reinterpret_cast<char const*>(key.data()), key.size()}; }
    void keyTextIs(std::string_view text) { key = {reinterpret_cast<U8 const*>(text.data()), text.size()}; }
    void del() const {
        In in(key);
        attribute->memberDel(*entity, in);
    }
    void is(Entity& member) const {
        In in(key);
        attribute->memberIs(*entity, in, member);
    }
    // Whether it is this collection, and not one that makes its members beside it, by which the parent has the member.
    bool owns(Entity& member) const {
        if (entity != member.parent()) return false;
        if (attribute->kind == StreamKind::instances) return true;
        Out name;
        name << member.name();
        for (StreamAttribute const& other : entity->fwkType().glue().stream().attributes) {
            if (other.kind != StreamKind::instances || !other.keyIsName) continue;
            In in(name.bytes());
            if (other.member(*entity, in) == &member) return false;
        }
        return true;
    }
    // In the place of what is there, of which observers are told once unless the collection takes no other member under
    // a key that is in use.
    void replacementIs(Entity& member) const {
        Ptr<Entity> const before = there();
        try {
            is(member);
            if (!before || there() != before.get()) return;
        } catch (NameInUseException const&) {}
        del();
        is(member);
    }
    bool holdsValue() const {
        In in(key);
        return attribute->holds(*entity, in);
    }
};

// --- what the copy takes ---

class AttrLogReplica::Left final : public Notifiee {
public:
    Left(AttrLogReplica& replica, Entity const& entity, std::size_t size)
        : replica_(replica), entity_(&entity), size_(size) {
        notifierIs(&entity);
    }
    ~Left() override {
        replica_.size_ -= size_;
        replica_.leftSize_ -= size_;
    }
    void handleAttribute(AttributeId) override {}
    void handleAttribute(AttributeId, NotifieeKey const&) override {}
    void handleNotifierDel() noexcept override {
        Entity const* const entity = entity_;
        replica_.left_.erase(entity);  // destroys this
    }

private:
    AttrLogReplica& replica_;
    Entity const* entity_;
    std::size_t size_;
};

void AttrLogReplica::leftIs(Known const& known) {
    if (known.entity->references() == 1) {  // nobody holds it but whoever calls
        size_ -= known.size;
        return;
    }
    left_.emplace(known.entity.get(), std::make_unique<Left>(*this, *known.entity, known.size));
    leftSize_ += known.size;
}

// Until the sync mark the copy may be twice as large, since what has gone is there still.
void AttrLogReplica::needRoom(std::size_t more) const {
    std::size_t const most = limits().copySize;
    bool const fits = more <= most && size_ <= most - more && sizeBefore_ <= most + (most - more - size_);
    if (!fits) throw StreamException(format("a copy of more than %zu bytes", most), 0);
}

void AttrLogReplica::sizeChanged(EntityId id, std::size_t before, std::size_t after) {
    if (before == after) return;
    auto const found = known_.find(id);  // looked up again: observers were told
    if (found == known_.end()) return;
    std::size_t& size = found->second.size;
    before = std::min(before, size + after);  // something else may have changed the copy
    size += after - before;
    size_ += after - before;
}

namespace {

std::string textOf(std::span<U8 const> key) { return {reinterpret_cast<char const*>(key.data()), key.size()}; }

}  // namespace

AttrLogReplica::AttrLogReplica(Ptr<Entity> root, Options options)
    : StreamPeer(options.limits), options_(std::move(options)), root_(std::move(root)) {}
AttrLogReplica::AttrLogReplica(Ptr<Dir> parent, String name, Options options)
    : StreamPeer(options.limits), options_(std::move(options)), parent_(std::move(parent)), name_(std::move(name)) {}
AttrLogReplica::~AttrLogReplica() = default;

// --- connections ---

void AttrLogReplica::connected() {
    reset();
    disconnected();
    welcomed_ = false;
    types_.clear();
    if (sizeBefore_ > limits().copySize)
        sizeBefore_ = root_ ? ReplicaSize::ofAll(*root_) : 0;  // counted at each of many cuts
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
    disconnected();
    stateIs(root_ ? State::stale : State::empty);
}

// Nothing is known of the source any more.
void AttrLogReplica::disconnected() {
    mayWrite_ = false;
    rootId_ = 0;
    unmentioned_.clear();
    blockedMembers_.clear();
    blocked_.clear();
    loosened_.clear();
    ids_.clear();
    sizeBefore_ += size_ - leftSize_;
    size_ = leftSize_;
    keys_ = 0;
    known_.clear();
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
    case MessageKind::keysAgain:
        return keysAgain(body);
    case MessageKind::keysEnd:
        return keysEnd(body);
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
        throw StreamRefusalException(
            {StreamFault::noSuchModule, "no module of the client has the entity type '" + peerText(name.view()) + "'"});
    if (!(module == type.moduleName()) || fingerprint != type.moduleFingerprint())
        throw StreamRefusalException({StreamFault::otherVersion,
            format("%s comes from module %s, fingerprint %016lx, at the server and from %s, %016lx, at the client",
                type.name(), peerText(module.view()).charPtr(), fingerprint, String(type.moduleName()).charPtr(),
                type.moduleFingerprint())});
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
    EntityId const owner = nextCompact(body);
    Known const& target = known(owner);
    AttributeId const id = nextCompact(body);
    StreamAttribute const* const attribute = target.table->find(id);
    if (!attribute || attribute->isCollection())
        throw StreamException(format("%s has no value or pointer %u", target.entity->fwkType().name(), id), 0);
    Ptr<Entity> const keep = target.entity;
    StreamAdapter::needInactive(*keep);
    In items({body.data(), body.left()}, this);
    if (attribute->kind == StreamKind::value) {
        if (!attribute->varies) return attribute->apply(*keep, items);
        std::size_t const before = ReplicaSize::ofValue(*attribute, *keep);
        needRoom(items.left());
        attribute->apply(*keep, items);
        return sizeChanged(owner, before, ReplicaSize::ofValue(*attribute, *keep));
    }
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
    needRoom(ReplicaSize::ofNew(type, name.length()) + ReplicaSize::keyCost + place.key.size());
    bool isNew = false;
    if (rootId_ == 0) {  // what is announced first is in no place, since no entity is known
        bind(id, rootOf(type, isNew), isNew);
        rootId_ = id;
    } else {
        if (!table.isCreatable) throw StreamException(format("%s can't be created", type.name()), 0);
        bind(id, announced(type, place, name, isNew), isNew);
    }
    putLoosened();
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
        if (instantiated) told(place);
        return there;
    }
    isNew = true;
    if (!instantiated) return ptr_cast<Entity>(type.glue().newEntity(name, nullptr));
    if (!there) sizeChanged(place.id, 0, ReplicaSize::keyCost + place.key.size());
    told(place);
    Link const link = linkOf(there.get());
    Ptr<Entity> const made = instantiate(type, place, name, there.get());
    loosenedIs(link);
    return made;
}

// A new member of a collection that makes its members. One that takes the place of another is put there as a whole, so
// that observers are told once.
Ptr<Entity> AttrLogReplica::instantiate(VelType type, Place const& place, String const& name, Entity* there) {
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
    Ptr<Entity> const made = ptr_cast<Entity>(type.glue().newEntity(isOwnType ? key.nextString() : name, nullptr));
    place.replacementIs(*made);
    return made;
}

// True if the entity at the key is already bound to another id: the source has deleted it and made a new one.
bool AttrLogReplica::checkEphemeralEntityDeletion(Place const&, Entity* there) { return ids_.contains(there); }

void AttrLogReplica::bind(EntityId id, Ptr<Entity> entity, bool isNew) {
    StreamTable const& table = entity->fwkType().glue().stream();
    std::size_t valueKeys = 0;
    std::size_t size = 0;
    if (isNew) {
        size = ReplicaSize::ofNew(entity->fwkType(), entity->name().length());
    } else {
        left_.erase(entity.get());
        StreamAttribute const* last = nullptr;
        Unmentioned::Keys* keys = nullptr;
        size = ReplicaSize::of(*entity, [&](StreamAttribute const& attribute, std::span<U8 const> key) {
            if (std::exchange(last, &attribute) != &attribute) keys = &unmentioned_[{id, attribute.id}].keys;
            keys->insert(textOf(key));
            valueKeys += attribute.kind == StreamKind::values;
        });
    }
    ids_.emplace(entity.get(), id);
    known_.emplace(id, Known{std::move(entity), &table, valueKeys, size});
    keys_ += valueKeys;
    size_ += size;
}

// --- collections ---

void AttrLogReplica::mentioned(Place const& place, bool isThere) {
    if (unmentioned_.empty()) return;
    auto const found = unmentioned_.find({place.id, place.attribute->id});
    if (found == unmentioned_.end()) return;
    auto& [keys, mentioned, comesAgain] = found->second;
    auto const at = keys.find(place.keyText());
    auto key = at == keys.end() ? Unmentioned::Keys::node_type() : keys.extract(at);
    if (!comesAgain) return;
    if (!isThere)
        mentioned.erase(textOf(place.key));
    else if (key)
        mentioned.insert(std::move(key));
    else
        mentioned.insert(textOf(place.key));
}

AttrLogReplica::Place AttrLogReplica::collection(In& body) {
    Place place;
    place.id = nextCompact(body);
    Known const& owner = known(place.id);
    place.entity = owner.entity;
    AttributeId const id = nextCompact(body);
    place.attribute = owner.table->find(id);
    needEnd(body);
    if (!place.attribute || !place.attribute->isCollection())
        throw StreamException(format("%s has no collection %u", place.entity->fwkType().name(), id), 0);
    return place;
}

// A source may begin again before the end. So that many beginnings cost no more than the keys that come between them,
// those that were mentioned are noted, and not looked for.
void AttrLogReplica::keysAgain(In& body) {
    Place const place = collection(body);
    Unmentioned& unmentioned = unmentioned_[{place.id, place.attribute->id}];
    if (std::exchange(unmentioned.comesAgain, true)) {
        unmentioned.keys.merge(unmentioned.mentioned);
        unmentioned.mentioned.clear();
        return;
    }
    ReplicaSize::eachKey(
        *place.attribute, *place.entity, [&](std::span<U8 const> key) { unmentioned.keys.insert(textOf(key)); });
}

// What has gone goes now, or at the sync mark if that is still to come.
void AttrLogReplica::keysEnd(In& body) {
    Place const place = collection(body);
    auto const found = unmentioned_.find({place.id, place.attribute->id});
    if (found == unmentioned_.end() || !found->second.comesAgain)
        throw StreamException("the end of keys that did not come again", 0);
    if (state_ == State::syncing) return;
    auto const keys = std::move(found->second.keys);
    unmentioned_.erase(found);
    delUnmentioned(place.id, place.attribute->id, keys);
    putLoosened();
}

void AttrLogReplica::delUnmentioned(EntityId id, AttributeId attribute, Unmentioned::Keys const& keys) {
    auto const owner = known_.find(id);
    if (owner == known_.end()) return;
    Place place{id, owner->second.entity, owner->second.table->find(attribute)};
    StreamAdapter::needInactive(*place.entity);
    for (std::string const& key : keys) {
        place.keyTextIs(key);
        if (place.attribute->kind == StreamKind::values)
            valueDel(place);
        else
            memberDel(place);
    }
}

void AttrLogReplica::memberDel(Place const& place) {
    Entity* const there = place.there();
    if (!there) return;
    Link const link = linkOf(there);
    place.del();
    loosenedIs(link);
    sizeChanged(place.id, ReplicaSize::keyCost + place.key.size(), 0);
}

// The source has said what is there now.
void AttrLogReplica::told(Place const& place, bool isThere) {
    mentioned(place, isThere);
    if (auto const at = blocked_.find(std::tuple(place.id, place.attribute->id, place.keyText())); at != blocked_.end())
        blockedDel(at->second);
}

void AttrLogReplica::keySet(In& body) {
    Place const place = this->place(body);
    if (!place.attribute->isCollection()) throw StreamException("a key of what is no collection", 0);
    if (place.attribute->kind == StreamKind::values) return keyValue(place, body);
    EntityId const id = nextCompact(body);
    Ptr<Entity> const member = known(id).entity;
    needEnd(body);
    ensureCorrectType(member->fwkType(), place.attribute->type());
    told(place);
    Entity* const there = place.there();
    if (!there) needRoom(ReplicaSize::keyCost + place.key.size());
    if (there != member.get()) put(place, id, *member);
    if (!blocked_.empty() && place.owns(*member)) blockedDel(id);
    putLoosened();
}

// Takes the entity out of the collection by which its parent owns it.
void AttrLogReplica::detach(Entity& entity) {
    Ptr<Entity> const parent = entity.parent();
    if (!parent || !parent->fwkType().glue().stream) return;
    Out key;
    key << entity.name();
    for (StreamKind const kind : {StreamKind::instances, StreamKind::references}) {
        for (StreamAttribute const& attribute : parent->fwkType().glue().stream().attributes) {
            if (attribute.kind != kind || !attribute.keyIsName) continue;
            In look(key.bytes());
            if (attribute.member(*parent, look) != &entity) continue;
            StreamAdapter::needInactive(*parent);
            In del(key.bytes());
            attribute.memberDel(*parent, del);
            if (auto const owner = ids_.find(parent.get()); owner != ids_.end())
                sizeChanged(owner->second, ReplicaSize::keyCost + key.size(), 0);
            if (entity.parent() != parent) return;
        }
    }
}

namespace {

constexpr char circular[] = "an entity within itself";

}  // namespace

// Where things are put that may be within one another, ways up are walked, which are made short by this.
void AttrLogReplica::checkDepth(Entity const& entity) const {
    std::size_t depth = 0;
    for (Entity const* above = entity.parent(); above; above = above->parent())
        if (++depth > limits().depth)
            throw StreamException(format("an entity that is moved within more than %zu others", limits().depth), 0);
}

// A move can arrive before the removal that makes room for it, so make room here.
void AttrLogReplica::put(Place const& place, EntityId id, Entity& member) {
    if (member.parent() || member.hasBeenParent()) {
        checkDepth(*place.entity);
        checkDepth(member);
    }
    bool const makes = place.attribute->kind == StreamKind::instances;
    if (makes && !makeRoom(place, id, member)) return;
    Entity* const there = place.there();
    Link const link = linkOf(there);
    bool const isPut = replace(place, id, member, makes);
    loosenedIs(link);
    if (isPut && !there) sizeChanged(place.id, 0, ReplicaSize::keyCost + place.key.size());
}

// Whether the member is there now, and does not wait.
bool AttrLogReplica::replace(Place const& place, EntityId id, Entity& member, bool makes) {
    try {
        place.replacementIs(member);
    } catch (StreamException const&) {
        throw;
    } catch (RangeException const&) {
        if (makes) throw;
        if (!makeRoom(place, id, member)) return false;
        place.replacementIs(member);
    }
    return true;
}

// Takes the member out of where it was. When its new owner is still within it, one of the owners between them has left
// the next, and which one is not known before it is told: the member waits for that.
bool AttrLogReplica::makeRoom(Place const& place, EntityId id, Entity& member) {
    if (place.entity == &member) throw StreamException(circular, 0);
    if (member.encloses(*place.entity)) {
        block(place, id);
        return false;
    }
    if (member.parent() && place.entity != member.parent()) {
        Link const link = linkOf(&member);
        detach(member);
        loosenedIs(link);
    }
    return true;
}

// --- members that wait ---

// What waits takes no more bytes than a key of the copy, and counts as one.
void AttrLogReplica::block(Place const& place, EntityId id) {
    std::size_t const size = ReplicaSize::keyCost + place.key.size();
    needRoom(size);
    blockedDel(id);
    auto const at = blocked_.try_emplace({place.id, place.attribute->id, std::string(place.keyText())}, id).first;
    blockedMembers_.emplace(id, at);
    sizeChanged(place.id, 0, size);
}

void AttrLogReplica::blockedDel(EntityId id) {
    auto const found = blockedMembers_.find(id);
    if (found == blockedMembers_.end()) return;
    auto const& [owner, attribute, key] = found->second->first;
    sizeChanged(owner, ReplicaSize::keyCost + key.size(), 0);
    blocked_.erase(found->second);
    blockedMembers_.erase(found);
}

// Puts the member where it is to go, or has it wait on.
void AttrLogReplica::retry(EntityId id) {
    auto const found = blockedMembers_.find(id);
    if (found == blockedMembers_.end()) return;
    auto const [ownerId, attribute, key] = found->second->first;
    blockedDel(id);
    Known const& owner = known(ownerId);
    Place place{ownerId, owner.entity, owner.table->find(attribute)};
    place.keyTextIs(key);
    Ptr<Entity> const member = known(id).entity;
    put(place, id, *member);
}

AttrLogReplica::Link AttrLogReplica::linkOf(Entity* entity) const {
    return blocked_.empty() || !entity ? Link{} : Link{entity, entity->parent()};
}

// Where an entity has left its parent, whatever is above may have waited for that.
void AttrLogReplica::loosenedIs(Link const& before) {
    if (!before.parent || before.entity->parent() == before.parent) return;
    if (loosened_.empty() || loosened_.back() != before.parent) loosened_.push_back(before.parent);
}

// Ways up are walked as far as members may wait; what is missed, since what is above has moved, is found at the sync
// mark.
void AttrLogReplica::putLoosened() {
    while (!loosened_.empty()) {
        Ptr<Entity> above = loosened_.back();
        loosened_.pop_back();
        for (std::size_t depth = 0; above && depth <= limits().depth && !blocked_.empty(); ++depth) {
            Ptr<Entity> const next = above->parent();
            if (auto const id = ids_.find(above.get()); id != ids_.end()) retry(id->second);
            above = next;
        }
    }
}

// Puts all that can go now. Whoever can't goes when another one is put, or never.
void AttrLogReplica::putBlocked() {
    std::vector<EntityId> members;
    for (auto const& [id, at] : blockedMembers_) members.push_back(id);
    for (EntityId const id : members) retry(id);
    putLoosened();
}

void AttrLogReplica::keyDel(In& body) {
    Place const place = this->place(body);
    needEnd(body);
    if (!place.attribute->isCollection()) throw StreamException("a key of what is no collection", 0);
    told(place, false);
    if (place.attribute->kind == StreamKind::values) return valueDel(place);
    memberDel(place);
    putLoosened();
}

void AttrLogReplica::keyValue(Place const& place, In& body) {
    bool const isNew = !place.holdsValue();
    if (isNew && keys_ >= limits().keys) throw StreamException("the source has too many keys", 0);
    bool const resizes = isNew || place.attribute->varies;
    std::size_t const before = isNew || !resizes ? 0 : ReplicaSize::ofKey(*place.attribute, *place.entity, place.key);
    if (resizes) needRoom(ReplicaSize::keyCost + place.key.size() + body.left());
    In key = place.keyIn();
    In items({body.data(), body.left()});
    place.attribute->applyKey(*place.entity, key, items);
    mentioned(place);
    if (resizes && place.holdsValue())
        sizeChanged(place.id, before, ReplicaSize::ofKey(*place.attribute, *place.entity, place.key));
    if (!isNew) return;
    auto const owner = known_.find(place.id);  // looked up again: observers were told
    if (owner == known_.end()) return;
    ++owner->second.keys;
    ++keys_;
}

// Keys that something else has put into the copy, or taken out, were not counted.
void AttrLogReplica::valueDel(Place const& place) {
    if (!place.holdsValue()) return;
    std::size_t const size = ReplicaSize::ofKey(*place.attribute, *place.entity, place.key);
    place.del();
    sizeChanged(place.id, size, 0);
    auto const owner = known_.find(place.id);
    if (owner == known_.end() || owner->second.keys == 0) return;
    --owner->second.keys;
    --keys_;
}

void AttrLogReplica::gone(In& body) {
    EntityId const id = nextCompact(body);
    needEnd(body);
    if (id == rootId_) throw StreamException("the root can't go", 0);
    blockedDel(id);
    for (auto at = blocked_.lower_bound(std::tuple(id, AttributeId(0), std::string_view()));
         at != blocked_.end() && std::get<0>(at->first) == id;)
        blockedDel((at++)->second);
    Known const gone = known(id);
    keys_ -= gone.keys;
    ids_.erase(gone.entity.get());
    known_.erase(id);
    unmentioned_.erase(unmentioned_.lower_bound({id, 0}), unmentioned_.upper_bound({id, ~AttributeId(0)}));
    leftIs(gone);
}

void AttrLogReplica::synced() {
    for (auto const& [at, unmentioned] : std::exchange(unmentioned_, {}))
        delUnmentioned(at.first, at.second, unmentioned.keys);
    sizeBefore_ = 0;
    putBlocked();
    if (!blocked_.empty()) throw StreamException(circular, 0);
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
