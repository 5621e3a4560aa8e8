#pragma once

#include "Vel/stream/internal/SlotSet.h"
#include "Vel/stream/internal/StreamDemuxer.h"

#include <memory>
#include <vector>

namespace Vel {

// What an entity, the root, leads to: which of the entities of a demuxer its readers are told of.
//
// An entity that can be reached from the root, through pointers and collections, comes into the view when a connection
// is first told of what refers to it, or a change makes something refer to it: so the work is spread over what is sent.
// It stays while it can be reached. One that views share has one adapter, and one id.
class VEL_API StreamView {
public:
    using Adapter = Entity::VelNboAttrLogSa;

    explicit StreamView(Ptr<Entity> root);                                 // with a demuxer of its own
    StreamView(std::shared_ptr<StreamDemuxer> demuxer, Ptr<Entity> root);  // beside others
    StreamView(StreamView const&) = delete;
    StreamView& operator=(StreamView const&) = delete;
    virtual ~StreamView();  // REQUIRES: it has no connections

    Entity& root() const { return *root_; }
    StreamDemuxer& demuxer() const { return *demuxer_; }

    bool has(Adapter const& adapter) const { return members_.has(adapter.slot()); }
    Adapter* adapter(EntityId id) const { return mine(demuxer_->adapter(id)); }  // null for none of the view's
    Adapter* adapter(Entity const& entity) const { return mine(demuxer_->adapter(entity)); }
    // Takes the entity into the view; null when its type can't be streamed. REQUIRES: as StreamDemuxer::newAdapter().
    Adapter* adapterIs(Entity& entity);
    NboAttrLog::SlotSet const& members() const { return members_; }  // by slot
    std::size_t entities() const { return count_; }

    U32 typeIndex(VelType type);  // the demuxer's, and the view uses it
    bool usesType(U32 index) const { return index < usesType_.size() && usesType_[index]; }

    // Removes what can't be reached any more. Runs by itself when half as many references have been dropped as there
    // are entities, the next time that something is sent.
    void sweep();
    void sweepIfDue();
    void referenceDropped() { ++dropped_; }

    // --- for the demuxer ---

    void forget(Adapter const& adapter);  // which goes
    virtual void clear();                 // all adapters go; connections are closing

private:
    Adapter* mine(Adapter* adapter) const { return adapter && has(*adapter) ? adapter : nullptr; }
    bool canHave(Entity const& entity) const;
    NboAttrLog::SlotSet reached(Adapter const& top) const;
    void leave(Adapter& adapter);
    void forgetOwners();
    template <class F> void eachConnection(F f) const;  // f(connection) for each of the view's

    std::shared_ptr<StreamDemuxer> demuxer_;
    Ptr<Entity> root_;
    NboAttrLog::SlotSet members_;
    std::size_t count_ = 0;
    std::vector<bool> usesType_;
    std::size_t dropped_ = 0;
};

}  // namespace Vel
