#pragma once

#include "Vel/stream/internal/ReplicaEntities.h"
#include "Vel/stream/internal/ReplicaPlace.h"

#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace Vel {

// Puts members into collections of a copy, which takes them out of their old places, and removes members.
//
// A source may send a move before another move that makes it possible. In the copy, the new owner of the member is then
// still within the member. The member waits for its place until the owner has left it. At most one member waits for a
// place, and a member waits for at most one place.
class VEL_API ReplicaNesting {
public:
    ReplicaNesting(ReplicaEntities& entities, StreamLimits const& limits);  // both must outlive this

    // Puts the member at the place, or has it wait. Throws StreamException if the member would be directly within
    // itself, or if it or its new owner has too many ancestors. Throws what the collection throws.
    void put(ReplicaPlace const& place, EntityId id, Entity& member);
    // Removes the member at the place, if there is one.
    void del(ReplicaPlace const& place);

    // Runs f, which may take the entity out of its place, and returns its result. Notes the old parent then, since a
    // member above it may have waited for that. `entity` may be null.
    template <class F> auto loosen(Entity* entity, F f) {
        Link const before = linkOf(entity);
        auto result = f();
        loosenedIs(before);
        return result;
    }
    void putLoosened();  // puts the members that waited for what loosen() has noted
    // Called at the sync mark, when no more moves come. Throws StreamException if a member still has to wait.
    void putAll();

    void told(ReplicaPlace const& place);  // the source has said what is there now: no member waits for it
    // The member is at the place. If its parent has it there, it waits for no other place any more.
    void isThere(ReplicaPlace const& place, EntityId id, Entity const& member) {
        if (!blocked_.empty() && place.owns(member)) blockedDel(id);
    }
    void gone(EntityId id);  // the entity does not wait any more, nor does any member for a place in it
    void clear();

private:
    struct Link {
        Ptr<Entity> entity, parent;
    };
    Link linkOf(Entity* entity) const;  // empty while no member waits
    void loosenedIs(Link const& before);
    void checkDepth(Entity const& entity) const;
    bool replace(ReplicaPlace const& place, EntityId id, Entity& member);
    bool makeRoom(ReplicaPlace const& place, EntityId id, Entity& member);
    void detach(Entity& entity);
    void block(ReplicaPlace const& place, EntityId id);
    void blockedDel(EntityId id);
    void retry(EntityId id);

    struct InOrder {  // orders places: owner, attribute, key as a string or a view of one
        using is_transparent = void;
        template <class A, class B> bool operator()(A const& a, B const& b) const {
            if (std::get<0>(a) != std::get<0>(b)) return std::get<0>(a) < std::get<0>(b);
            if (std::get<1>(a) != std::get<1>(b)) return std::get<1>(a) < std::get<1>(b);
            return std::string_view(std::get<2>(a)) < std::string_view(std::get<2>(b));
        }
    };
    using Blocked = std::map<std::tuple<EntityId, AttributeId, std::string>, EntityId, InOrder>;

    ReplicaEntities& entities_;
    StreamLimits const& limits_;
    Blocked blocked_;  // the waiting members, by place
    std::map<EntityId, Blocked::iterator> blockedMembers_;
    std::vector<Ptr<Entity>> loosened_;  // entities that a child has left; members above may have waited for it
};

}  // namespace Vel
