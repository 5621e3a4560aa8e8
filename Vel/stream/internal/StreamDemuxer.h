#pragma once

#include "Vel/stream/WriteHistory.h"
#include "Vel/stream/internal/FlowConnection.h"
#include "Vel/stream/internal/GradualMap.h"
#include "Vel/stream/internal/SharedSm.h"
#include "Vel/stream/internal/StreamPlaces.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace Vel {

// The entities of all views that share this demuxer, by id, and the connections to which they are streamed.
//
// An entity has an adapter while it is in a view. No other entity gets its id until all ids, 2^32 - 1 of them, have
// been given; then all views start over.
class VEL_API StreamDemuxer {
public:
    using Adapter = Entity::VelNboAttrLogSa;
    using Connections = std::vector<NboAttrLog::FlowConnection*>;
    // Delivers a change of a value to many readers at once. Returns whether all of them have got it, so that no message
    // is needed.
    using Multicast = std::function<bool(Entity& entity, AttributeId id)>;

    StreamDemuxer();
    StreamDemuxer(StreamDemuxer const&) = delete;
    StreamDemuxer& operator=(StreamDemuxer const&) = delete;
    ~StreamDemuxer();

    Adapter* adapter(EntityId id) const;           // or null
    Adapter* adapter(Entity const& entity) const;  // or null
    Adapter* adapterAt(U32 slot) const { return bySlot_[slot]; }
    std::size_t entities() const { return adapters_.size(); }

    // Runs f, which may take entities into views, and returns true. If no id is left for an entity, f is cut short and
    // the result is false: all readers have been refused, all views are empty, no adapter is left, and ids begin at 1
    // again.
    template <class F> bool givingIds(F f) {
        try {
            f();
            return true;
        } catch (IdsAreOut const&) {
            startOver();
            return false;
        }
    }
    // For tests of exhaustion: the next id will be id + 1. REQUIRES: id >= every id given so far.
    void lastIdIs(EntityId id) { lastId_ = id; }

    std::vector<VelType> const& types() const { return types_; }
    U32 typeIndex(VelType type);  // gives it an index when asked for the first time

    // Returns whether the deletion of the key has to be sent before the member at the key: the connection may have been
    // told of another member. `member` is null if it is not known.
    bool checkEphemeralEntityDeletion(NboAttrLog::FlowConnection const& connection, NboAttrLog::FlowOut const& flow,
        StreamAttribute const& attribute, std::string_view key, Adapter const* member) const;

    // --- for views ---

    void viewIs(StreamView& view, bool on);
    bool isInAView(U32 slot) const;
    Adapter& newAdapter(Entity& entity);  // REQUIRES: it has no adapter; called within givingIds(), or an id is left
    void adapterDel(Adapter& adapter);    // tells connections that know the entity that it has gone
    void catchingUpIs(NboAttrLog::FlowConnection& connection, bool on);
    void liveIs(NboAttrLog::FlowConnection& connection, NboAttrLog::OutSm& log, bool on);
    // Limits the bytes of messages that wait to be copied to several logs. The least limit that a view asks for is
    // used.
    void sharedSizeIs(std::size_t bytes) { sharedSize_ = std::min(sharedSize_, bytes); }
    void giveOut();       // copies the messages that wait to the logs
    void logIsWritten();  // called before one log is written; connections may learn of entities then
    void lookAfterLogs() { logsAreLookedAfter_ = false; }  // looks after the logs at the next change
    void remoteMayWriteIs(bool on) { remoteMayWrite_ = on; }
    void remoteAuthorIs(String const* author) { remoteAuthor_ = author; }
    void historyIs(std::shared_ptr<WriteHistory> history) {
        history_ = std::move(history);
        notified_ = history_ && history_->wantsNotifications() ? history_.get() : nullptr;
    }
    void multicastIs(Multicast deliver);  // REQUIRES: there is no adapter yet
    // Returns the places of entities below the root. They last as long as a view keeps them.
    std::shared_ptr<StreamPlaces> placesBelow(Ptr<Entity> const& root);
    void haveMoved(std::span<StreamPlaces::Moved const> moved);

    // --- for adapters ---

    Connections const& catchingUp() const { return catchingUp_; }  // one for each reader that catches up
    Connections const& live() const { return live_; }              // one for each view that has live readers
    // Returns the output for a message to all live connections that were told of the entity, or null if there are none.
    NboAttrLog::OutSm* liveSm(Adapter& adapter) {
        if (live_.size() != 1) return sharedSm(adapter);
        return live_[0]->isAnnounced(adapter) ? logs_[0] : nullptr;
    }
    void changesAreWritten() {  // called when changes may have been written
        if (live_.size() == 1) return live_[0]->changesAreWritten();
        lookAfterChanges();
    }
    // Takes the entity into the views that have `referrer`, which refers to it now. Returns its adapter, or null if its
    // type cannot be streamed. REQUIRES: as newAdapter().
    Adapter* referredIs(Adapter const& referrer, Entity& entity);
    void referenceDropped(Adapter const& referrer);
    bool hasRights() const { return !places_.expired(); }  // there are views whose readers may not read everything
    // Note, for those views, at which keys of collections there are members that their readers may read. A key is noted
    // before its change is told, and the note is removed afterwards.
    void keyIsNamed(
        Adapter const& adapter, StreamAttribute const& attribute, std::string_view key, Adapter const* member, bool on);
    std::optional<String> placeOf(Entity const& entity) const;  // its path for rights; nothing without rights, too
    void notifierDeleted(Adapter& adapter);                     // destroys the adapter
    bool remoteMayWrite() const { return remoteMayWrite_; }
    String const* remoteAuthor() const { return remoteAuthor_; }  // of the message that is being handled; null: none is
    WriteHistory* history() const { return history_.get(); }      // null: nobody wants to know
    WriteHistory* notifiedHistory() const { return notified_; }   // the same, if it wants to know of each change
    bool multicast(Adapter const& adapter, AttributeId id) const {
        return multicast_ && multicast_(adapter.entity(), id);
    }
    void changeCounted(bool coalesced) {
        ++changes_;
        coalesced_ += coalesced;
    }
    NboAttrLog::Out& keyOut() { return keyOut_; }

    U64 changes() const { return changes_; }      // number of changes, counted for each reader that catches up
    U64 coalesced() const { return coalesced_; }  // number of these whose flag was set already

private:
    struct IdsAreOut {};
    void startOver();
    void clear();
    NboAttrLog::OutSm* sharedSm(Adapter& adapter);
    bool hasAudience(Adapter& adapter);
    void lookAfterChanges();

    Detail::GradualMap<EntityId, std::unique_ptr<Adapter>> adapters_;
    Detail::GradualMap<Entity const*, Adapter*> byEntity_;
    std::vector<Adapter*> bySlot_;
    std::vector<U32> freeSlots_;
    std::vector<VelType> types_;
    std::vector<StreamView*> views_;
    Connections catchingUp_;
    Connections live_;
    std::vector<NboAttrLog::OutSm*> logs_;  // of the live connections
    NboAttrLog::SharedSm shared_;
    std::vector<bool> isTarget_;  // for each live connection: whether its log is a target of shared_
    U64 audience_ = 0;            // a number for this set of targets; 0: there is none
    U64 lastAudience_ = 0;
    std::size_t sharedSize_ = 4096;    // bytes
    bool logsAreLookedAfter_ = false;  // no reader waits to be woken for what is in shared_
    NboAttrLog::Out keyOut_;
    Multicast multicast_;
    EntityId lastId_ = 0;  // the last one that was given
    bool remoteMayWrite_ = false;
    String const* remoteAuthor_ = nullptr;
    std::shared_ptr<WriteHistory> history_;
    WriteHistory* notified_ = nullptr;
    std::weak_ptr<StreamPlaces> places_;
    U64 changes_ = 0;
    U64 coalesced_ = 0;
};

}  // namespace Vel
