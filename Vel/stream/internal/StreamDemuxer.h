#pragma once

#include "Vel/stream/internal/FlowConnection.h"
#include "Vel/stream/internal/GradualMap.h"
#include "Vel/stream/internal/SharedSm.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

namespace Vel {

// The entities of all views that share it, by number, and the connections that they are streamed to.
//
// An entity has an adapter while it is in a view. Its id is its own until all ids, 2^32 - 1 of them, have been given;
// all views start over then.
class VEL_API StreamDemuxer {
public:
    using Adapter = Entity::VelNboAttrLogSa;
    using Connections = std::vector<NboAttrLog::FlowConnection*>;
    // Somebody who delivers a change of a value to many readers at once, and says whether that was all of them.
    using Multicast = std::function<bool(Entity& entity, AttributeId id)>;

    StreamDemuxer();
    StreamDemuxer(StreamDemuxer const&) = delete;
    StreamDemuxer& operator=(StreamDemuxer const&) = delete;
    ~StreamDemuxer();

    Adapter* adapter(EntityId id) const;           // or null
    Adapter* adapter(Entity const& entity) const;  // or null
    Adapter* adapterAt(U32 slot) const { return bySlot_[slot]; }
    std::size_t entities() const { return adapters_.size(); }

    // Runs f, which may take entities into views. Where no id is left for one, f is cut short, all readers are closing,
    // all views are empty, no adapter is left, and ids begin at 1 again: then the result is false.
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
    U32 typeIndex(VelType type);  // given when first asked

    // Whether the member at the key (null: it is not known) may be another than the one that the connection was told
    // of, so that the deletion has to be sent first.
    bool checkEphemeralEntityDeletion(NboAttrLog::FlowConnection const& connection, NboAttrLog::FlowOut const& flow,
        StreamAttribute const& attribute, std::string_view key, Adapter const* member) const;

    // --- for views ---

    void viewIs(StreamView& view, bool on);
    bool isInAView(U32 slot) const;
    Adapter& newAdapter(Entity& entity);  // REQUIRES: it has none; runs within givingIds(), or an id is left
    void adapterDel(Adapter& adapter);    // connections that were told of the entity are told that it has gone
    void catchingUpIs(NboAttrLog::FlowConnection& connection, bool on);
    void liveIs(NboAttrLog::FlowConnection& connection, NboAttrLog::OutSm& log, bool on);
    // At most so many bytes of messages wait to be given to several logs; the least of what views ask for.
    void sharedSizeIs(std::size_t bytes) { sharedSize_ = std::min(sharedSize_, bytes); }
    void giveOut();                                        // so that logs have all of their messages
    void logIsWritten();                                   // by itself, and who knows of which entities may change
    void lookAfterLogs() { logsAreLookedAfter_ = false; }  // at the next change
    void remoteMayWriteIs(bool on) { remoteMayWrite_ = on; }
    void multicastIs(Multicast deliver);  // REQUIRES: there is no adapter yet

    // --- for adapters ---

    Connections const& catchingUp() const { return catchingUp_; }  // one for each reader that does
    Connections const& live() const { return live_; }              // one for each view whose log is read
    // Where to write what each live connection gets that was told of the entity; null when there is none.
    NboAttrLog::OutSm* liveSm(Adapter& adapter) {
        if (live_.size() != 1) return sharedSm(adapter);
        return live_[0]->isAnnounced(adapter) ? logs_[0] : nullptr;
    }
    void changesAreWritten() {  // something may have been
        if (live_.size() == 1) return live_[0]->changesAreWritten();
        lookAfterChanges();
    }
    // Takes the entity into the views that have the one that refers to it now. Null when its type can't be streamed.
    // REQUIRES: as newAdapter().
    Adapter* referredIs(Adapter const& referrer, Entity& entity);
    void referenceDropped(Adapter const& referrer);
    void notifierDeleted(Adapter& adapter);  // destroys the adapter
    bool remoteMayWrite() const { return remoteMayWrite_; }
    bool multicast(Adapter const& adapter, AttributeId id) const {
        return multicast_ && multicast_(adapter.entity(), id);
    }
    void changeCounted(bool coalesced) {
        ++changes_;
        coalesced_ += coalesced;
    }
    NboAttrLog::Out& keyOut() { return keyOut_; }

    U64 changes() const { return changes_; }      // flagged for a reader that catches up
    U64 coalesced() const { return coalesced_; }  // of these, where the flag was there already

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
    std::vector<bool> isTarget_;  // by live connection: its log is a target of shared_
    U64 audience_ = 0;            // the number of these targets; of other ones it is another
    U64 lastAudience_ = 0;
    std::size_t sharedSize_ = 4096;    // bytes
    bool logsAreLookedAfter_ = false;  // nobody waits for what is in shared_
    NboAttrLog::Out keyOut_;
    Multicast multicast_;
    EntityId lastId_ = 0;  // given
    bool remoteMayWrite_ = false;
    U64 changes_ = 0;
    U64 coalesced_ = 0;
};

}  // namespace Vel
