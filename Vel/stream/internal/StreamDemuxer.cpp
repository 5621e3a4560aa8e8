#include "Vel/stream/internal/StreamDemuxer.h"

#include "Vel/stream/internal/StreamView.h"

#include <algorithm>

namespace Vel {

using NboAttrLog::FlowConnection;
using NboAttrLog::FlowOut;

StreamDemuxer::StreamDemuxer() = default;
StreamDemuxer::~StreamDemuxer() = default;

StreamDemuxer::Adapter* StreamDemuxer::adapter(EntityId id) const {
    auto const* const found = adapters_.find(id);
    return found ? found->get() : nullptr;
}

StreamDemuxer::Adapter* StreamDemuxer::adapter(Entity const& entity) const {
    Adapter* const* const found = byEntity_.find(&entity);
    return found ? *found : nullptr;
}

StreamDemuxer::Adapter& StreamDemuxer::newAdapter(Entity& entity) {
    if (lastId_ == ~EntityId(0)) throw IdsAreOut();
    U32 slot;  // there are at most as many slots as ids, so none of them is SlotSet::none
    if (freeSlots_.empty()) {
        slot = static_cast<U32>(bySlot_.size());
        bySlot_.push_back(nullptr);
    } else {
        slot = freeSlots_.back();
        freeSlots_.pop_back();
    }
    auto made = std::make_unique<Adapter>(*this, entity, ++lastId_, slot);
    Adapter& adapter = *made;
    adapter.attrLogFlagsIs(Adapter::multicastBit, multicast_ != nullptr);
    adapters_.add(adapter.id(), std::move(made));
    byEntity_.add(&entity, &adapter);
    bySlot_[slot] = &adapter;
    return adapter;
}

void StreamDemuxer::adapterDel(Adapter& adapter) {
    for (auto const* const connections : {&catchingUp_, &live_})
        for (FlowConnection* const connection : *connections) connection->forget(adapter, false);
    for (StreamView* const view : views_) view->forget(adapter);
    bySlot_[adapter.slot()] = nullptr;
    freeSlots_.push_back(adapter.slot());
    byEntity_.erase(&adapter.entity());
    adapters_.erase(adapter.id());
}

U32 StreamDemuxer::typeIndex(VelType type) {
    auto const found = std::find(types_.begin(), types_.end(), type);
    auto const index = static_cast<U32>(found - types_.begin());
    if (found == types_.end()) types_.push_back(type);
    return index;
}

void StreamDemuxer::clear() {
    byEntity_.clear();
    bySlot_.clear();
    freeSlots_.clear();
    adapters_.clear();
}

void StreamDemuxer::startOver() {
    for (StreamView* const view : views_) view->clear();
    lastId_ = 0;
    clear();
}

void StreamDemuxer::multicastIs(Multicast deliver) { multicast_ = std::move(deliver); }

// --- views ---

void StreamDemuxer::viewIs(StreamView& view, bool on) {
    std::erase(views_, &view);
    if (on)
        views_.push_back(&view);
    else if (views_.empty())
        clear();
    else
        view.members().eachNotIn({}, [&](U32 slot) {
            if (!isInAView(slot)) adapterDel(*bySlot_[slot]);
            return false;
        });
}

bool StreamDemuxer::isInAView(U32 slot) const {
    return std::any_of(views_.begin(), views_.end(), [&](StreamView* view) { return view->members().has(slot); });
}

StreamDemuxer::Adapter* StreamDemuxer::referredIs(Adapter const& referrer, Entity& entity) {
    Adapter* referred = nullptr;
    for (StreamView* const view : views_)
        if (view->has(referrer))
            if (Adapter* const taken = view->adapterIs(entity)) referred = taken;
    return referred;
}

void StreamDemuxer::referenceDropped(Adapter const& referrer) {
    for (StreamView* const view : views_)
        if (view->has(referrer)) view->referenceDropped();
}

// --- rights ---

std::shared_ptr<StreamPlaces> StreamDemuxer::placesBelow(Ptr<Entity> const& root) {
    std::shared_ptr<StreamPlaces> places = places_.lock();
    if (!places) places_ = places = std::make_shared<StreamPlaces>(*this, root);
    return places;
}

// An entity may run code that destroys a view, so the views are looked up again.
void StreamDemuxer::haveMoved(std::span<StreamPlaces::Moved const> moved) {
    givingIds([&] {
        for (std::size_t i = views_.size(); i-- > 0;)
            if (i < views_.size()) views_[i]->haveMoved(moved);
    });
}

void StreamDemuxer::keyIsNamed(
    Adapter const& adapter, StreamAttribute const& attribute, std::string_view key, Adapter const* member, bool on) {
    for (StreamView* const view : views_)
        if (view->has(adapter) && (member && view->has(*member)) == on) view->keyIsNamed(adapter, attribute, key, on);
}

std::optional<String> StreamDemuxer::placeOf(Entity const& entity) const {
    std::shared_ptr<StreamPlaces> const places = places_.lock();
    return places ? places->path(entity) : std::nullopt;
}

void StreamDemuxer::notifierDeleted(Adapter& adapter) {
    adapterDel(adapter);
    changesAreWritten();
}

// --- connections ---

void StreamDemuxer::catchingUpIs(FlowConnection& connection, bool on) {
    std::erase(catchingUp_, &connection);
    if (on) catchingUp_.push_back(&connection);
}

void StreamDemuxer::liveIs(FlowConnection& connection, NboAttrLog::OutSm& log, bool on) {
    logIsWritten();
    std::erase(live_, &connection);
    std::erase(logs_, &log);
    if (!on) return;
    live_.push_back(&connection);
    logs_.push_back(&log);
}

NboAttrLog::OutSm* StreamDemuxer::sharedSm(Adapter& adapter) {
    if (audience_ != 0 && hasAudience(adapter)) return &shared_;
    logIsWritten();
    isTarget_.assign(live_.size(), false);
    for (std::size_t i = 0; i < live_.size(); ++i) {
        if (!live_[i]->isAnnounced(adapter)) continue;
        isTarget_[i] = true;
        shared_.targetIs(*logs_[i]);
    }
    if (shared_.targets().empty()) return nullptr;
    audience_ = ++lastAudience_;
    adapter.audienceIs(audience_);
    return &shared_;
}

// Returns whether the live connections that were told of the entity are the targets of shared_. Compares them only if
// the adapter does not have the targets' number.
bool StreamDemuxer::hasAudience(Adapter& adapter) {
    if (adapter.audience() == audience_) return true;
    for (std::size_t i = 0; i < live_.size(); ++i)
        if (live_[i]->isAnnounced(adapter) != isTarget_[i]) return false;
    adapter.audienceIs(audience_);
    return true;
}

void StreamDemuxer::giveOut() {
    if (shared_.waiting() == 0) return;
    shared_.giveOut();
    logsAreLookedAfter_ = false;
}

void StreamDemuxer::logIsWritten() {
    shared_.targetsDel();
    audience_ = 0;
    logsAreLookedAfter_ = false;
}

// Goes backwards, since a connection, or all of them, may cease to be live meanwhile.
void StreamDemuxer::lookAfterChanges() {
    if (logsAreLookedAfter_ && shared_.waiting() < sharedSize_) return;
    giveOut();
    logsAreLookedAfter_ = true;
    for (std::size_t i = live_.size(); i-- > 0;)
        if (i < live_.size()) live_[i]->changesAreWritten();
}

bool StreamDemuxer::checkEphemeralEntityDeletion(FlowConnection const& connection, FlowOut const& flow,
    StreamAttribute const& attribute, std::string_view key, Adapter const* member) const {
    if (attribute.kind != StreamKind::instances || !flow.velKeyIsDirty(attribute.id, key)) return false;
    return !member || !connection.isAnnounced(*member);
}

}  // namespace Vel
