#pragma once

#include "Vel/stream/internal/SlotSet.h"
#include "Vel/stream/internal/StreamDemuxer.h"
#include "Vel/stream/internal/ViewRights.h"

#include <memory>
#include <span>
#include <string_view>
#include <vector>

namespace Vel {

// The entities of a demuxer that readers of one entity, the root, are told of: those that can be reached from it.
//
// An entity comes into the view when a pointer or a collection that refers to it is first sent to a connection, or when
// a change makes one refer to it. So the work is spread over what is sent. The entity stays while it can be reached. An
// entity that is in several views has one adapter and one id.
class VEL_API StreamView {
public:
    using Adapter = Entity::VelNboAttrLogSa;

    explicit StreamView(Ptr<Entity> root);  // with a demuxer of its own
    // With a demuxer that other views share. `rights` says what the readers may read; null: everything.
    StreamView(std::shared_ptr<StreamDemuxer> demuxer, Ptr<Entity> root, std::unique_ptr<ViewRights> rights = nullptr);
    StreamView(StreamView const&) = delete;
    StreamView& operator=(StreamView const&) = delete;
    virtual ~StreamView();  // REQUIRES: it has no connections

    Entity& root() const { return *root_; }
    StreamDemuxer& demuxer() const { return *demuxer_; }

    bool has(Adapter const& adapter) const { return members_.has(adapter.slot()); }
    Adapter* adapter(EntityId id) const { return mine(demuxer_->adapter(id)); }  // null if it is not in the view
    Adapter* adapter(Entity const& entity) const { return mine(demuxer_->adapter(entity)); }
    // Takes the entity into the view, and returns its adapter, or null if its type cannot be streamed or its readers
    // may not read it. REQUIRES: as StreamDemuxer::newAdapter().
    Adapter* adapterIs(Entity& entity);
    NboAttrLog::SlotSet const& members() const { return members_; }  // by slot
    std::size_t entities() const { return count_; }

    // Whether the entity may be in the view: if its type can be streamed, and the readers may read it.
    bool canHave(Entity const& entity) const;
    ViewRights const* rights() const { return rights_.get(); }  // null: the readers may do everything
    // Whether the readers may hear of the key: always, unless the collection has entities, and at this key was none
    // that they may read.
    bool mayName(Adapter const& adapter, StreamAttribute const& attribute, std::string_view key) const {
        return !rights_ || !attribute.holdsEntities() || rights_->names(adapter, attribute, key);
    }
    void keyIsNamed(Adapter const& adapter, StreamAttribute const& attribute, std::string_view key, bool on) {
        if (rights_) rights_->nameIs(adapter, attribute, key, on);
    }

    U32 typeIndex(VelType type);  // the demuxer's index; the view uses the type from now on
    bool usesType(U32 index) const { return index < usesType_.size() && usesType_[index]; }

    // Removes the entities that cannot be reached any more. A reader calls sweepIfDue() before it sends: that sweeps if
    // more than 64 references have been dropped, and more than half as many as a sweep looks at: the view's entities,
    // and the references that its readers may not know.
    void sweep();
    void sweepIfDue();
    void referenceDropped() { ++dropped_; }

    // --- for the demuxer ---

    void forget(Adapter const& adapter);  // removes the entity from the view
    virtual void clear();                 // called when all adapters go; a source also refuses its readers
    // Called after entities have moved. Those that the readers may not read any more leave the view, and what refers to
    // one that they may read or not read now is told again.
    void haveMoved(std::span<StreamPlaces::Moved const> moved);
    virtual void rootIsHidden() {}  // called when the readers may not read the root any more

private:
    Adapter* mine(Adapter* adapter) const { return adapter && has(*adapter) ? adapter : nullptr; }
    NboAttrLog::SlotSet reached(Adapter const& top);  // counts hidden_
    void leave(Adapter& adapter);
    void leave(std::vector<Adapter*>& adapters);
    void tellAgain(StreamEntities const& changed);
    void forgetOwners();
    template <class F> void eachConnection(F f) const;  // calls f(connection) for each connection of the view

    std::shared_ptr<StreamDemuxer> demuxer_;
    Ptr<Entity> root_;
    NboAttrLog::SlotSet members_;
    std::size_t count_ = 0;
    std::vector<bool> usesType_;
    std::size_t dropped_ = 0;
    std::size_t hidden_ =
        0;  // references that the last sweep found, and that the readers may not know; 0 without rights
    std::unique_ptr<ViewRights> rights_;  // null: the readers may read everything
};

}  // namespace Vel
