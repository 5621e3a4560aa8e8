#pragma once

#include "Vel/base/Exception.h"
#include "Vel/base/TableHash.h"
#include "Vel/stream/StreamPeer.h"
#include "Vel/stream/internal/ReplicaSize.h"

#include <memory>
#include <unordered_map>

namespace Vel {

// The entities of a copy that its source has announced, by the source's ids, and their estimated size. The source
// chooses what it sends, so limits are checked here.
class VEL_API ReplicaEntities final : public NboAttrLog::EntityResolver {
public:
    explicit ReplicaEntities(StreamLimits const& limits);  // the limits must outlive it
    ReplicaEntities(ReplicaEntities const&) = delete;
    ReplicaEntities& operator=(ReplicaEntities const&) = delete;
    ~ReplicaEntities();

    struct Known {
        Ptr<Entity> entity;
        StreamTable const* table;
        std::size_t keys = 0;  // number of keys in its collections of values
        std::size_t size = 0;  // estimated bytes, with its keys
    };
    std::size_t count() const { return known_.size(); }
    Known const* find(EntityId id) const {  // or null
        auto const found = known_.find(id);
        return found == known_.end() ? nullptr : &found->second;
    }
    Known const& known(EntityId id) const {  // throws StreamException if it is not known
        if (Known const* const found = find(id)) return *found;
        throwUnknown(id);
    }
    Entity* entity(EntityId id) override;
    EntityId idOf(Entity const* entity) const;  // 0 if it has none

    // Adds an entity. `table` has its attributes with the source's numbers. Calls f(attribute, key)
    // for each key of its collections. REQUIRES: the id is not known.
    template <class F> void add(EntityId id, Ptr<Entity> entity, StreamTable const& table, F f) {
        std::size_t valueKeys = 0;
        leftDel(entity.get());
        std::size_t const size =
            ReplicaSize::of(*entity, table, [&](StreamAttribute const& attribute, std::span<U8 const> key) {
                f(attribute, key);
                valueKeys += attribute.kind == StreamKind::values;
            });
        add(id, std::move(entity), table, valueKeys, size);
    }
    // Removes an entity that the source no longer has. It counts as long as somebody in this process holds it. Throws
    // as known().
    void del(EntityId id);
    // Forgets all ids. The entities stay in the copy, and their size counts as that of the copy before.
    void disconnected();

    // --- size ---

    std::size_t size() const { return size_ + typesSize_; }      // estimated bytes that the source makes the copy take
    void typesSizeIs(std::size_t bytes) { typesSize_ = bytes; }  // of described types
    // Throw StreamException if the copy would be too large: needRoom() if it took `more` bytes more, needKey() if it
    // had one more key in collections of values. Until the sync mark the copy may take twice the bytes, since entities
    // that have gone are still there.
    void needRoom(std::size_t more) const;
    void needKey() const;
    // A part of the entity took `before` bytes, and takes `after` now. An id that is not known is ignored: an observer
    // of the change may have ended the connection.
    void sizeChanged(EntityId id, std::size_t before, std::size_t after);
    void keyAdded(EntityId id);  // a key was added to a collection of values
    void keyDeleted(EntityId id);
    // Counts the size of the copy before once more if it seems to be over the limit: after several cut connections some
    // entities have been counted several times.
    void recountBefore(Entity* root);
    void synced() { sizeBefore_ = 0; }  // entities that have gone have been deleted

private:
    class Left;
    [[noreturn]] static void throwUnknown(EntityId id);
    void add(EntityId id, Ptr<Entity> entity, StreamTable const& table, std::size_t valueKeys, std::size_t size);
    void leftDel(Entity const* entity);

    StreamLimits const& limits_;
    std::unordered_map<EntityId, Known, TableHasher> known_;  // TableHasher, since the source chooses the ids
    std::unordered_map<Entity const*, EntityId> ids_;
    std::unordered_map<Entity const*, std::unique_ptr<Left>> left_;
    std::size_t keys_ = 0;  // in collections of values, of all known entities
    std::size_t typesSize_ = 0;
    std::size_t size_ = 0;        // bytes of the known entities, and of those in left_
    std::size_t leftSize_ = 0;    // bytes of those in left_
    std::size_t sizeBefore_ = 0;  // bytes of what earlier connections made; 0 after the sync mark
};

}  // namespace Vel
