#include "Vel/stream/internal/ReplicaNesting.h"

#include "Vel/base/Exception.h"
#include "Vel/stream/internal/StreamAdapter.h"

namespace Vel {

using NboAttrLog::In;
using NboAttrLog::Out;

namespace {

constexpr char circular[] = "an entity within itself";

std::size_t sizeOf(ReplicaPlace const& place) { return ReplicaSize::keyCost + place.key.size(); }

}  // namespace

ReplicaNesting::ReplicaNesting(ReplicaEntities& entities, StreamLimits const& limits)
    : entities_(entities), limits_(limits) {}

// Throws StreamException if the entity has too many ancestors. Moves walk up from there, and this limits the time.
void ReplicaNesting::checkDepth(Entity const& entity) const {
    std::size_t depth = 0;
    for (Entity const* above = entity.parent(); above; above = above->parent())
        if (++depth > limits_.depth)
            throw StreamException(format("an entity that is moved within more than %zu others", limits_.depth), 0);
}

// A move can arrive before the message that takes the member out of its old place, so take it out here.
void ReplicaNesting::put(ReplicaPlace const& place, EntityId id, Entity& member) {
    if (member.parent() || member.hasBeenParent()) {
        checkDepth(*place.entity);
        checkDepth(member);
    }
    bool const makes = place.attribute->kind == StreamKind::instances;
    if (makes && !makeRoom(place, id, member)) return;
    Entity* const there = place.there();
    bool const isPut = loosen(there, [&] { return replace(place, id, member); });
    if (isPut && !there) entities_.sizeChanged(place.id, 0, sizeOf(place));
}

// Returns whether the member is at the place now. If not, it waits.
bool ReplicaNesting::replace(ReplicaPlace const& place, EntityId id, Entity& member) {
    try {
        place.replacementIs(member);
    } catch (StreamException const&) {
        throw;
    } catch (RangeException const&) {
        if (place.attribute->kind == StreamKind::instances) throw;
        if (!makeRoom(place, id, member)) return false;
        place.replacementIs(member);
    }
    return true;
}

// Takes the member out of its old place, and returns true. If its new owner is still within it, has it wait, and
// returns false: at the source, one of the entities between the two has left its owner, and only a later message says
// which one.
bool ReplicaNesting::makeRoom(ReplicaPlace const& place, EntityId id, Entity& member) {
    if (place.entity == &member) throw StreamException(circular, 0);
    if (member.encloses(*place.entity)) {
        block(place, id);
        return false;
    }
    if (!member.parent() || place.entity == member.parent()) return true;
    return loosen(&member, [&] {
        detach(member);
        return true;
    });
}

// Takes the entity out of the collection by which its parent owns it.
void ReplicaNesting::detach(Entity& entity) {
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
            if (EntityId const owner = entities_.idOf(parent.get()))
                entities_.sizeChanged(owner, ReplicaSize::keyCost + key.size(), 0);
            if (entity.parent() != parent) return;
        }
    }
}

void ReplicaNesting::del(ReplicaPlace const& place) {
    Entity* const there = place.there();
    if (!there) return;
    loosen(there, [&] {
        place.del();
        return true;
    });
    entities_.sizeChanged(place.id, sizeOf(place), 0);
}

// --- members that wait ---

// Has the member wait for the place. It takes no more bytes than a key of the copy, and counts as one.
void ReplicaNesting::block(ReplicaPlace const& place, EntityId id) {
    entities_.needRoom(sizeOf(place));
    blockedDel(id);
    auto const at = blocked_.try_emplace({place.id, place.attribute->id, std::string(place.keyText())}, id).first;
    blockedMembers_.emplace(id, at);
    entities_.sizeChanged(place.id, 0, sizeOf(place));
}

void ReplicaNesting::blockedDel(EntityId id) {
    auto const found = blockedMembers_.find(id);
    if (found == blockedMembers_.end()) return;
    auto const& [owner, attribute, key] = found->second->first;
    entities_.sizeChanged(owner, ReplicaSize::keyCost + key.size(), 0);
    blocked_.erase(found->second);
    blockedMembers_.erase(found);
}

// Tries again to put a waiting member at its place. It may have to wait again.
void ReplicaNesting::retry(EntityId id) {
    auto const found = blockedMembers_.find(id);
    if (found == blockedMembers_.end()) return;
    auto const [ownerId, attribute, key] = found->second->first;
    blockedDel(id);
    ReplicaEntities::Known const& owner = entities_.known(ownerId);
    ReplicaPlace place{ownerId, owner.entity, owner.table->find(attribute)};
    place.keyTextIs(key);
    Ptr<Entity> const member = entities_.known(id).entity;
    put(place, id, *member);
}

ReplicaNesting::Link ReplicaNesting::linkOf(Entity* entity) const {
    return blocked_.empty() || !entity ? Link{} : Link{entity, entity->parent()};
}

// If an entity has left its parent, notes the parent: a member above may have waited for that.
void ReplicaNesting::loosenedIs(Link const& before) {
    if (!before.parent || before.entity->parent() == before.parent) return;
    if (loosened_.empty() || loosened_.back() != before.parent) loosened_.push_back(before.parent);
}

// Walks up from each noted entity, as far as a waiting member can be. A member that is missed, since entities above
// have moved, is found at the sync mark.
void ReplicaNesting::putLoosened() {
    while (!loosened_.empty()) {
        Ptr<Entity> above = loosened_.back();
        loosened_.pop_back();
        for (std::size_t depth = 0; above && depth <= limits_.depth && !blocked_.empty(); ++depth) {
            Ptr<Entity> const next = above->parent();
            if (EntityId const id = entities_.idOf(above.get())) retry(id);
            above = next;
        }
    }
}

// Tries each waiting member once. A member that still has to wait is put after another one has been put, or never.
void ReplicaNesting::putAll() {
    std::vector<EntityId> members;
    for (auto const& [id, at] : blockedMembers_) members.push_back(id);
    for (EntityId const id : members) retry(id);
    putLoosened();
    if (!blocked_.empty()) throw StreamException(circular, 0);
}

void ReplicaNesting::told(ReplicaPlace const& place) {
    if (auto const at = blocked_.find(std::tuple(place.id, place.attribute->id, place.keyText())); at != blocked_.end())
        blockedDel(at->second);
}

void ReplicaNesting::gone(EntityId id) {
    blockedDel(id);
    for (auto at = blocked_.lower_bound(std::tuple(id, AttributeId(0), std::string_view()));
         at != blocked_.end() && std::get<0>(at->first) == id;)
        blockedDel((at++)->second);
}

void ReplicaNesting::clear() {
    blockedMembers_.clear();
    blocked_.clear();
    loosened_.clear();
}

}  // namespace Vel
