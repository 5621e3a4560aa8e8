#include "Vel/stream/internal/ReplicaEntities.h"

#include "Vel/entity/NotifieeList.h"

#include <algorithm>

namespace Vel {

// Watches an entity that the source no longer has and that somebody in this process holds, until it is destroyed.
class ReplicaEntities::Left final : public Notifiee {
public:
    Left(ReplicaEntities& entities, Entity const& entity, std::size_t size)
        : entities_(entities), entity_(&entity), size_(size) {
        notifierIs(&entity);
    }
    std::size_t size() const { return size_; }
    void handleAttribute(AttributeId) override {}
    void handleAttribute(AttributeId, NotifieeKey const&) override {}
    void handleNotifierDel() noexcept override { entities_.leftDel(entity_); }  // destroys this

private:
    ReplicaEntities& entities_;
    Entity const* entity_;
    std::size_t size_;
};

ReplicaEntities::ReplicaEntities(StreamLimits const& limits) : limits_(limits) {}
ReplicaEntities::~ReplicaEntities() = default;

void ReplicaEntities::throwUnknown(EntityId id) { throw StreamException(format("entity %u was not announced", id), 0); }

Entity* ReplicaEntities::entity(EntityId id) {
    Known const* const found = find(id);
    return found ? found->entity.get() : nullptr;
}

EntityId ReplicaEntities::idOf(Entity const* entity) const {
    auto const found = ids_.find(entity);
    return found == ids_.end() ? 0 : found->second;
}

void ReplicaEntities::add(
    EntityId id, Ptr<Entity> entity, StreamTable const& table, std::size_t valueKeys, std::size_t size) {
    ids_.emplace(entity.get(), id);
    known_.emplace(id, Known{std::move(entity), &table, valueKeys, size});
    keys_ += valueKeys;
    size_ += size;
}

void ReplicaEntities::del(EntityId id) {
    Known const gone = known(id);
    keys_ -= gone.keys;
    ids_.erase(gone.entity.get());
    known_.erase(id);
    if (gone.entity->references() == 1) {  // nobody else holds it
        size_ -= gone.size;
        return;
    }
    left_.emplace(gone.entity.get(), std::make_unique<Left>(*this, *gone.entity, gone.size));
    leftSize_ += gone.size;
}

void ReplicaEntities::leftDel(Entity const* entity) {
    auto const found = left_.find(entity);
    if (found == left_.end()) return;
    size_ -= found->second->size();
    leftSize_ -= found->second->size();
    left_.erase(found);
}

void ReplicaEntities::disconnected() {
    ids_.clear();
    sizeBefore_ += size_ - leftSize_;
    size_ = leftSize_;
    keys_ = 0;
    known_.clear();
}

// --- size ---

void ReplicaEntities::needRoom(std::size_t more) const {
    std::size_t const most = limits_.copySize;
    std::size_t const used = size();
    bool const fits = more <= most && used <= most - more && sizeBefore_ <= most + (most - more - used);
    if (!fits) throw StreamException(format("a copy of more than %zu bytes", most), 0);
}

void ReplicaEntities::needKey() const {
    if (keys_ >= limits_.keys) throw StreamException("the source has too many keys", 0);
}

void ReplicaEntities::sizeChanged(EntityId id, std::size_t before, std::size_t after) {
    if (before == after) return;
    auto const found = known_.find(id);
    if (found == known_.end()) return;
    std::size_t& size = found->second.size;
    before = std::min(before, size + after);  // the process itself may have changed the copy
    size += after - before;
    size_ += after - before;
}

void ReplicaEntities::keyAdded(EntityId id) {
    auto const owner = known_.find(id);
    if (owner == known_.end()) return;
    ++owner->second.keys;
    ++keys_;
}

// Keys that the process itself has put into the copy were not counted, so the count may be 0.
void ReplicaEntities::keyDeleted(EntityId id) {
    auto const owner = known_.find(id);
    if (owner == known_.end() || owner->second.keys == 0) return;
    --owner->second.keys;
    --keys_;
}

void ReplicaEntities::recountBefore(Entity* root) {
    if (sizeBefore_ > limits_.copySize) sizeBefore_ = root ? ReplicaSize::ofAll(*root) : 0;
}

}  // namespace Vel
