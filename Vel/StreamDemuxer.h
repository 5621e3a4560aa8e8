#pragma once

#include "Vel/FlowConnection.h"

#include <memory>
#include <unordered_map>
#include <vector>

namespace Vel {

// The entities of one view by number, and the connections that they are streamed to.
//
// An entity that can be reached from the root, through pointers and collections, comes into the view, and has an adapter
// then, when a connection is first told of what refers to it, or a change makes something refer to it: so the work is
// spread over what is sent. It stays while it can be reached. Its id is its own until all ids, 2^32 - 1 of them, have
// been given; the view starts over then. The root's is 1.
class VEL_API StreamDemuxer {
public:
    using Adapter = Entity::VelNboAttrLogSa;

    explicit StreamDemuxer(Ptr<Entity> root);
    StreamDemuxer(StreamDemuxer const&) = delete;
    StreamDemuxer& operator=(StreamDemuxer const&) = delete;
    virtual ~StreamDemuxer();

    Entity& root() const { return *root_; }
    Adapter* adapter(EntityId id) const;           // or null
    Adapter* adapter(Entity const& entity) const;  // or null
    // Takes the entity into the view; null when its type can't be streamed, or there is no id left: idsAreOut() then.
    Adapter* adapterIs(Entity& entity);
    bool idsAreOut() const { return idsAreOut_; }
    // Empties the view; ids begin at 1 again. No connection may know of an id then. Destroys all adapters.
    virtual void startOver();
    // As though the ids up to this one had been given. REQUIRES: none above it has.
    void lastIdIs(EntityId id) { lastId_ = id; }
    std::size_t entities() const { return adapters_.size(); }
    NboAttrLog::SlotSet const& slots() const { return usedSlots_; }
    Adapter* adapterAt(U32 slot) const { return bySlot_[slot]; }

    std::vector<VelType> const& types() const { return types_; }
    U32 typeIndex(VelType type);  // given when first asked

    // Removes what can't be reached any more. Runs by itself when half as many references have been dropped as there
    // are entities, the next time that something is sent.
    void sweep();
    void sweepIfDue();

    // Whether the member at the key (null: it is not known) may be another than the one that the connection was told
    // of, so that the deletion has to be sent first.
    bool checkEphemeralEntityDeletion(NboAttrLog::FlowConnection const& connection, NboAttrLog::FlowOut const& flow,
        StreamAttribute const& attribute, std::string_view key, Adapter const* member) const;

    // --- for adapters ---

    std::vector<NboAttrLog::FlowConnection*> const& catchingUp() const { return catchingUp_; }
    NboAttrLog::FlowConnection* live() const { return live_; }        // null while nobody reads the log
    NboAttrLog::FlowConnection* flowing() const { return flowing_; }  // the one that is being flowed out to, or null
    void flowingIs(NboAttrLog::FlowConnection* connection) { flowing_ = connection; }
    bool remoteMayWrite() const { return remoteMayWrite_; }
    void referenceDropped() { ++dropped_; }
    void notifierDeleted(Adapter& adapter);  // destroys the adapter
    void changeCounted(bool coalesced) {
        ++changes_;
        coalesced_ += coalesced;
    }
    virtual void liveIsWritten() {}  // something was added to the log
    // A change that somebody else may deliver; see SerializeSink.
    virtual bool multicast(Adapter&, AttributeId) { return false; }
    NboAttrLog::Out& keyOut() { return keyOut_; }

    U64 changes() const { return changes_; }      // flagged for a reader that catches up
    U64 coalesced() const { return coalesced_; }  // of these, where the flag was there already

protected:
    void remoteMayWriteIs(bool on) { remoteMayWrite_ = on; }
    void catchingUpIs(NboAttrLog::FlowConnection& connection, bool on);
    void liveIs(NboAttrLog::FlowConnection* connection) { live_ = connection; }
    virtual void entityHasGone(EntityId, NboAttrLog::FlowConnection&) {}  // the connection was told of it
    U32 newAdapterFlags_ = 0;  // SerializeSink's, of every adapter made from now on

private:
    Adapter* newAdapter(Entity& entity);  // null: there is no id left
    void remove(Adapter& adapter);

    Ptr<Entity> root_;
    std::unordered_map<EntityId, std::unique_ptr<Adapter>> adapters_;
    std::unordered_map<Entity const*, Adapter*> byEntity_;
    std::vector<Adapter*> bySlot_;
    std::vector<U32> freeSlots_;
    NboAttrLog::SlotSet usedSlots_;
    std::vector<VelType> types_;
    std::vector<NboAttrLog::FlowConnection*> catchingUp_;
    NboAttrLog::FlowConnection* live_ = nullptr;
    NboAttrLog::FlowConnection* flowing_ = nullptr;
    NboAttrLog::Out keyOut_;
    EntityId lastId_ = 0;  // given
    std::size_t dropped_ = 0;
    bool remoteMayWrite_ = false;
    bool idsAreOut_ = false;
    U64 changes_ = 0;
    U64 coalesced_ = 0;
};

}  // namespace Vel
