#pragma once

#include "Vel/describe/StreamTable.h"
#include "Vel/entity/Entity.h"

#include <span>
#include <string_view>

namespace Vel {

// An attribute of an entity that a message to a copy names: a pointer, or a collection with a key.
struct VEL_API ReplicaPlace {
    EntityId id = 0;
    Ptr<Entity> entity{};  // held, so that no observer can destroy it
    StreamAttribute const* attribute = nullptr;
    std::span<U8 const> key{};  // of a collection, as its type encodes it

    NboAttrLog::In keyIn() const { return NboAttrLog::In(key); }
    std::string_view keyText() const { return {reinterpret_cast<char const*>(key.data()), key.size()}; }
    void keyTextIs(std::string_view text) { key = {reinterpret_cast<U8 const*>(text.data()), text.size()}; }

    Entity* there() const;    // the entity at the place, or null. REQUIRES: no collection of values
    bool holdsValue() const;  // whether the key has a value. REQUIRES: a collection of values
    void del() const;         // removes the key. REQUIRES: a collection
    // Returns whether the member's parent has it in this collection: `entity` is the parent, and no other collection of
    // it, which makes its members, has the member.
    bool owns(Entity const& member) const;
    // Puts the member at the place, instead of the one that is there. Observers are notified once. They are notified
    // twice if the collection takes no other member under a key that is in use. REQUIRES: a collection of entities.
    void replacementIs(Entity& member) const;
};

}  // namespace Vel
