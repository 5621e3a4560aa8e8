#pragma once

#include "Vel/base/Exception.h"
#include "Vel/base/TableHash.h"
#include "Vel/stream/StreamPeer.h"
#include "Vel/stream/internal/ReplicaSize.h"

#include <memory>
#include <unordered_map>

namespace Vel {

// The entities of a copy that its source has told of, by the source's ids, and how large they make the copy. The source
// chooses what comes, so it is held to limits.
class VEL_API ReplicaEntities final : public NboAttrLog::EntityResolver {
public:
    explicit ReplicaEntities(StreamLimits const& limits);  // which must outlive it
    ReplicaEntities(ReplicaEntities const&) = delete;
    ReplicaEntities& operator=(ReplicaEntities const&) = delete;
    ~ReplicaEntities();

    struct Known {
        Ptr<Entity> entity;
        StreamTable const* table;
        std::size_t keys = 0;  // of its collections of values
        std::size_t size = 0;  // bytes, by estimate, with its keys
    };
    std::size_t count() const { return known_.size(); }
    Known const* find(EntityId id) const {  // or null
        auto const found = known_.find(id);
        return found == known_.end() ? nullptr : &found->second;
    }
    Known const& known(EntityId id) const {  // throws StreamException when it is not
        if (Known const* const found = find(id)) return *found;
        throwUnknown(id);
    }
    Entity* entity(EntityId id) override;
    EntityId idOf(Entity const* entity) const;  // 0: it has none

    // Calls f(attribute, key) for each key of a collection that the entity has. REQUIRES: the id is not known.
    template <class F> void add(EntityId id, Ptr<Entity> entity, F f) {
        std::size_t valueKeys = 0;
        leftDel(entity.get());
        std::size_t const size =
            ReplicaSize::of(*entity, [&](StreamAttribute const& attribute, std::span<U8 const> key) {
                f(attribute, key);
                valueKeys += attribute.kind == StreamKind::values;
            });
        add(id, std::move(entity), valueKeys, size);
    }
    void addNew(EntityId id, Ptr<Entity> entity);  // an entity that has nothing yet
    // The source knows it no more. While somebody here holds it, it counts. Throws as known().
    void del(EntityId id);
    // The source is another one from now on. What is there stays, and its size counts as that of the copy before.
    void disconnected();

    // --- size ---

    std::size_t size() const { return size_; }  // bytes that the source makes the copy take, by estimate
    // Throw StreamException where the copy would be larger than it may be, by bytes or by keys of values. Until the sync
    // mark it may be twice as large, since what has gone is still there.
    void needRoom(std::size_t more) const;
    void needKey() const;
    // What the entity takes, of so many bytes, has changed. An id that is not known is passed over: observers were told.
    void sizeChanged(EntityId id, std::size_t before, std::size_t after);
    void keyAdded(EntityId id);  // to a collection of values
    void keyDeleted(EntityId id);
    // The size of the copy before: counted anew when it may have become too large, as at each of many cuts.
    void recountBefore(Entity* root);
    void synced() { sizeBefore_ = 0; }  // what has gone is not there any more

private:
    class Left;
    [[noreturn]] static void throwUnknown(EntityId id);
    void add(EntityId id, Ptr<Entity> entity, std::size_t valueKeys, std::size_t size);
    void leftDel(Entity const* entity);

    StreamLimits const& limits_;
    std::unordered_map<EntityId, Known, TableHasher> known_;  // the source chooses the ids
    std::unordered_map<Entity const*, EntityId> ids_;
    std::unordered_map<Entity const*, std::unique_ptr<Left>> left_;
    std::size_t keys_ = 0;        // of values, of all known entities
    std::size_t size_ = 0;        // of these, and of those that are left
    std::size_t leftSize_ = 0;    // of those
    std::size_t sizeBefore_ = 0;  // of what earlier connections made and may be there still, until the sync mark
};

}  // namespace Vel
