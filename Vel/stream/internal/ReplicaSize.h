#pragma once

#include "Vel/describe/StreamTable.h"
#include "Vel/entity/Entity.h"

#include <memory>
#include <span>

// Estimates the memory that a copy takes, rather too high than too low: for an entity also what is noted about it; for
// a key also what it takes to note it once more; for names, keys and values of no fixed size the bytes of their
// encoding.
namespace Vel::ReplicaSize {

inline constexpr std::size_t entityCost = 192;  // bytes, beside the object itself
inline constexpr std::size_t keyCost = 160;

inline std::size_t ofNew(VelType type, std::size_t name) { return entityCost + type.glue().size + name; }
VEL_API std::size_t ofValue(StreamAttribute const& attribute, Entity const& entity);
// REQUIRES: a collection of values has the key.
VEL_API std::size_t ofKey(StreamAttribute const& attribute, Entity const& entity, std::span<U8 const> key);
VEL_API std::size_t ofAll(Entity& top);  // the entity and all that it leads to

template <class F> void eachKey(StreamAttribute const& attribute, Entity const& entity, F f) {
    std::unique_ptr<NboAttrLog::Bookmark> const keys(attribute.bookmark(entity));
    NboAttrLog::Out key;
    while (keys->left() != 0) {
        key.clear();
        keys->next(key);
        f(key.bytes());
    }
}

// Returns the size of the entity with its keys, by this table of its attributes. Calls f(attribute, key) for each key.
template <class F> std::size_t of(Entity const& entity, StreamTable const& table, F f) {
    std::size_t size = ofNew(entity.fwkType(), entity.name().length());
    for (StreamAttribute const& attribute : table.attributes) {
        if (attribute.kind == StreamKind::value && attribute.varies) size += ofValue(attribute, entity);
        if (!attribute.isCollection()) continue;
        eachKey(attribute, entity, [&](std::span<U8 const> key) {
            size += ofKey(attribute, entity, key);
            f(attribute, key);
        });
    }
    return size;
}

}  // namespace Vel::ReplicaSize
