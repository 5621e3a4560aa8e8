#pragma once

#include "Vel/stream/internal/ReplicaEntities.h"
#include "Vel/stream/internal/ReplicaPlace.h"

#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace Vel {

// Puts members of a copy into collections, out of where they were, and takes them out.
//
// A source may tell of a move before it tells of another one that makes the first possible: here the member's new owner
// is still within the member then. The member waits for its place until the owner is out. In a place one member waits,
// and each waits for one place.
class VEL_API ReplicaNesting {
public:
    ReplicaNesting(ReplicaEntities& entities, StreamLimits const& limits);  // which must outlive it

    // Puts the member there, or has it wait. Throws StreamException where it would be within itself, or where more
    // entities are above it than may be, or what the collection throws.
    void put(ReplicaPlace const& place, EntityId id, Entity& member);
    // Takes out what is there.
    void del(ReplicaPlace const& place);

    // Runs f, which takes an entity, null for none, out of its place: what is above may have waited for that.
    template <class F> auto loosen(Entity* entity, F f) {
        Link const before = linkOf(entity);
        auto result = f();
        loosenedIs(before);
        return result;
    }
    void putLoosened();  // puts whoever may have waited for what has been taken out
    // At the sync mark, when nothing more comes. Throws StreamException when somebody waits on.
    void putAll();

    void told(ReplicaPlace const& place);  // the source has said what is there now: nobody waits for that
    // The member is there, and waits for no other place if that is the one it is in by its parent.
    void isThere(ReplicaPlace const& place, EntityId id, Entity const& member) {
        if (!blocked_.empty() && place.owns(member)) blockedDel(id);
    }
    void gone(EntityId id);  // neither it waits nor anybody for a place in it
    void clear();

private:
    struct Link {
        Ptr<Entity> entity, parent;
    };
    Link linkOf(Entity* entity) const;  // null while nothing waits
    void loosenedIs(Link const& before);
    void checkDepth(Entity const& entity) const;
    bool replace(ReplicaPlace const& place, EntityId id, Entity& member);
    bool makeRoom(ReplicaPlace const& place, EntityId id, Entity& member);
    void detach(Entity& entity);
    void block(ReplicaPlace const& place, EntityId id);
    void blockedDel(EntityId id);
    void retry(EntityId id);

    struct InOrder {  // of places: owner, attribute, key as a string or a view of one
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
    Blocked blocked_;  // by place
    std::map<EntityId, Blocked::iterator> blockedMembers_;
    std::vector<Ptr<Entity>> loosened_;  // those that something has left, for which a member above may be waiting
};

}  // namespace Vel
