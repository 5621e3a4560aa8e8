#include "Vel/StreamDemuxer.h"

#include <algorithm>
#include <unordered_set>

namespace Vel {

using NboAttrLog::FlowConnection;
using NboAttrLog::FlowOut;
using NboAttrLog::SlotSet;

namespace {

// Calls f(Entity&) for everything that the entity refers to by what is streamed.
template <class F> void visitReferences(Entity const& entity, F f) {
    for (StreamAttribute const& attribute : entity.fwkType().glue().stream().attributes) {
        if (attribute.kind == StreamKind::pointer) {
            if (Entity* const target = attribute.target(entity)) f(*target);
        } else if (attribute.holdsEntities()) {
            attribute.visit(
                entity, [](void* context, Entity& member) { (*static_cast<F*>(context))(member); }, &f);
        }
    }
}

bool isStreamable(VelType type) { return type.glue().stream && type.glue().stream().isCreatable; }

}  // namespace

StreamDemuxer::StreamDemuxer(Ptr<Entity> root) : root_(std::move(root)) {}
StreamDemuxer::~StreamDemuxer() = default;

StreamDemuxer::Adapter* StreamDemuxer::adapter(EntityId id) const {
    auto const found = adapters_.find(id);
    return found == adapters_.end() ? nullptr : found->second.get();
}

StreamDemuxer::Adapter* StreamDemuxer::adapter(Entity const& entity) const {
    auto const found = byEntity_.find(&entity);
    return found == byEntity_.end() ? nullptr : found->second;
}

StreamDemuxer::Adapter* StreamDemuxer::newAdapter(Entity& entity) {
    if (lastId_ == ~EntityId(0)) {
        idsAreOut_ = true;
        return nullptr;
    }
    U32 slot;  // there are never more than ids, so that the last number, SlotSet::none, is none
    if (freeSlots_.empty()) {
        slot = static_cast<U32>(bySlot_.size());
        bySlot_.push_back(nullptr);
    } else {
        slot = freeSlots_.back();
        freeSlots_.pop_back();
    }
    auto made = std::make_unique<Adapter>(*this, entity, ++lastId_, slot);
    Adapter* const adapter = made.get();
    adapter->attrLogFlagsIs(newAdapterFlags_, true);
    adapters_.emplace(adapter->id(), std::move(made));
    byEntity_.emplace(&entity, adapter);
    bySlot_[slot] = adapter;
    usedSlots_.add(slot);
    return adapter;
}

StreamDemuxer::Adapter* StreamDemuxer::adapterIs(Entity& entity) {
    if (Adapter* const known = adapter(entity)) return known;
    if (&entity != root_.get() && !isStreamable(entity.fwkType())) return nullptr;
    return newAdapter(entity);
}

U32 StreamDemuxer::typeIndex(VelType type) {
    auto const found = std::find(types_.begin(), types_.end(), type);
    auto const index = static_cast<U32>(found - types_.begin());
    if (found == types_.end()) types_.push_back(type);
    return index;
}

void StreamDemuxer::startOver() {
    byEntity_.clear();
    bySlot_.clear();
    freeSlots_.clear();
    usedSlots_.clear();
    lastId_ = 0;
    dropped_ = 0;
    idsAreOut_ = false;
    adapters_.clear();
}

// --- leaving the view ---

void StreamDemuxer::remove(Adapter& adapter) {
    auto const leave = [&](FlowConnection& connection) {
        bool const told = connection.isAnnounced(adapter);
        connection.forget(adapter);
        if (told) entityHasGone(adapter.id(), connection);
    };
    for (FlowConnection* const connection : catchingUp_) leave(*connection);
    if (live_) leave(*live_);
    bySlot_[adapter.slot()] = nullptr;
    usedSlots_.del(adapter.slot());
    freeSlots_.push_back(adapter.slot());
    byEntity_.erase(&adapter.entity());
    adapters_.erase(adapter.id());
}

void StreamDemuxer::notifierDeleted(Adapter& adapter) {
    remove(adapter);
    if (live_) liveIsWritten();
}

void StreamDemuxer::sweepIfDue() {
    if (dropped_ > 64 && dropped_ > adapters_.size() / 2) sweep();
}

void StreamDemuxer::sweep() {
    dropped_ = 0;
    Adapter* const top = adapter(*root_);
    if (!top) return;
    SlotSet reached;
    std::unordered_set<Entity const*> onTheWay;  // that are not in the view yet, and lead to some that are
    std::vector<Entity const*> left{root_.get()};
    reached.add(top->slot());
    while (!left.empty()) {
        Entity const& next = *left.back();
        left.pop_back();
        visitReferences(next, [&](Entity& referred) {
            if (Adapter* const a = adapter(referred)) {
                if (reached.has(a->slot())) return;
                reached.add(a->slot());
            } else if (!isStreamable(referred.fwkType()) || !onTheWay.insert(&referred).second) {
                return;
            }
            left.push_back(&referred);
        });
    }
    std::vector<Adapter*> unreached;
    for (auto const& [id, a] : adapters_)
        if (!reached.has(a->slot())) unreached.push_back(a.get());
    std::sort(unreached.begin(), unreached.end(), [](Adapter* a, Adapter* b) { return a->id() < b->id(); });
    for (Adapter* const a : unreached) remove(*a);
    if (live_ && !unreached.empty()) liveIsWritten();
}

// --- connections ---

void StreamDemuxer::catchingUpIs(FlowConnection& connection, bool on) {
    std::erase(catchingUp_, &connection);
    if (on) catchingUp_.push_back(&connection);
}

bool StreamDemuxer::checkEphemeralEntityDeletion(FlowConnection const& connection, FlowOut const& flow,
    StreamAttribute const& attribute, std::string_view key, Adapter const* member) const {
    if (attribute.kind != StreamKind::instances || !flow.velKeyIsDirty(attribute.id, key)) return false;
    return !member || !connection.isAnnounced(*member);
}

}  // namespace Vel
