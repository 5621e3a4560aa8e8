#pragma once

#include "Vel/describe/StreamTable.h"
#include "Vel/entity/Entity.h"

#include <span>
#include <string_view>

namespace Vel {

// An attribute of an entity that a message to a copy names: a pointer, or a collection with a key.
struct VEL_API ReplicaPlace {
    EntityId id = 0;
    Ptr<Entity> entity{};  // kept, whatever observers do
    StreamAttribute const* attribute = nullptr;
    std::span<U8 const> key{};  // of a collection, as its type encodes it

    NboAttrLog::In keyIn() const { return NboAttrLog::In(key); }
    std::string_view keyText() const { return {reinterpret_cast<char const*>(key.data()), key.size()}; }
    void keyTextIs(std::string_view text) { key = {reinterpret_cast<U8 const*>(text.data()), text.size()}; }

    Entity* there() const;    // what is referred to, or null. REQUIRES: no collection of values
    bool holdsValue() const;  // REQUIRES: a collection of values
    void del() const;         // REQUIRES: a collection
    // Whether this collection has the member, its parent's, and not one beside it that makes its members.
    bool owns(Entity const& member) const;
    // Puts the member in the place of what is there. Observers are told of that once, unless the collection takes no
    // other member under a key that is in use. REQUIRES: a collection of entities.
    void replacementIs(Entity& member) const;
};

}  // namespace Vel
