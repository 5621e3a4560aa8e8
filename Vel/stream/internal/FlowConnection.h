#pragma once

#include "Vel/stream/FlowOut.h"
#include "Vel/stream/internal/GradualMap.h"
#include "Vel/stream/internal/SlotSet.h"
#include "Vel/stream/internal/StreamAdapter.h"

#include <deque>
#include <memory>
#include <span>
#include <vector>

namespace Vel {
class StreamView;
}

namespace Vel::NboAttrLog {

// What the readers of one output of a view know: the entities and types that they were told of, and what they still
// have to be sent. Each reader that catches up has a connection of its own; all live readers of a view share one.
class VEL_API FlowConnection {
public:
    explicit FlowConnection(StreamView* view) : view_(view) {}
    FlowConnection(FlowConnection const&) = delete;
    FlowConnection& operator=(FlowConnection const&) = delete;
    virtual ~FlowConnection();

    virtual OutSm& nboAttrLogOut() = 0;
    virtual bool isOkToSerialize() const = 0;  // the output can take another message
    virtual void typeIsNeeded(VelType) {}      // called before the type is sent; may throw StreamRefusal
    // Called when an entity that was announced has left the view. `mayReturn` says that another view still has it, so
    // that it may come back under its id.
    virtual void entityHasGone(EntityId, bool /*mayReturn*/) {}
    virtual void changesAreWritten() {}  // called for a live connection when changes may have been written

    // The place at which an entity is referred to, so that a replica can find the entity that it may already have
    // there.
    struct Via {
        Adapter* parent = nullptr;  // null for the root, and for what cannot be reached
        StreamAttribute const* attribute = nullptr;
        std::string_view key{};  // of a collection
    };
    void announce(Adapter& adapter, Via const& via);

    // Takes the entity into the view, and returns its adapter. Returns null for null, and for an entity that cannot be
    // streamed. REQUIRES: as StreamDemuxer::newAdapter().
    Adapter* adapterOf(Entity* entity);
    // Sends a pointer to `target`, which may be null. Announces the target before, if it was not announced. REQUIRES:
    // the target is in the view.
    void sendPtr(Adapter& adapter, StreamAttribute const& attribute, Adapter* target);
    // Sends the member at the key, or the deletion of the key if `member` is null. `isNew` says that the key comes from
    // a bookmark. Then no message is needed if the member was announced at this key, nor if there is no member, since
    // the reader has nothing to delete.
    void sendMember(
        Adapter& adapter, StreamAttribute const& attribute, std::string_view key, Adapter* member, bool isNew);
    // Looks up the key in the collection, and sends its value, its member or its deletion. REQUIRES: as adapterOf().
    void sendKey(Adapter& adapter, StreamAttribute const& attribute, std::string_view key, bool isNew);
    // The same for a key from a bookmark. `again` says that the reader may have been told of the key before.
    void sendListedKey(Adapter& adapter, StreamAttribute const& attribute, std::string_view key, bool again);
    void sendKeyDel(Adapter& adapter, StreamAttribute const& attribute, std::string_view key);
    // Writes one message with several values of the entity.
    static void writeValues(OutSm& sm, Adapter const& adapter, std::span<StreamAttribute const* const> values);
    static void writeKeyDel(OutSm& sm, Adapter const& adapter, StreamAttribute const& attribute, std::string_view key);
    // All keys of the collection are sent between these two messages. Keys that were not sent have gone.
    void sendKeysAgain(Adapter& adapter, StreamAttribute const& attribute);
    void sendKeysEnd(Adapter& adapter, StreamAttribute const& attribute);

    // Sends what is flagged of the waiting entities, as much as the output takes.
    void continueFlowOut();
    bool hasWaiting() const { return !waiting_.empty(); }
    U64 flowed() const { return flowed_; }  // number of entities done with, and of keys without a message

    bool isAnnounced(Adapter const& adapter) const { return announced_.has(adapter.slot()); }
    bool isNotBegun(Adapter const& adapter) const { return notBegun_.has(adapter.slot()); }
    FlowOut* flow(Adapter const& adapter) const;  // null: nothing to send, or sending has not begun
    FlowOut& flowIs(Adapter const& adapter, AttributeId from);
    std::size_t flows() const { return flows_.size(); }
    void forget(Adapter const& adapter, bool mayReturn);  // called when the entity has left the view
    void notInstantiated(Adapter const& adapter) { instantiated_.del(adapter.slot()); }

    // Takes over what the readers of `other` were told.
    void knowledgeIs(FlowConnection const& other);
    void typeIsTold(U32 index, bool told);
    void tellType(U32 index);
    void tellTypes();  // all types that the view uses
    SlotSet const& announced() const { return announced_; }
    void unannounce(Adapter const& adapter);
    void clear();  // forgets everything, and frees the memory

    StreamView& view() const { return *view_; }

protected:
    void viewIs(StreamView& view) { view_ = &view; }

private:
    void sendNothing(Adapter& adapter, StreamAttribute const& attribute, std::string_view key, bool isNew);
    Via ownerOf(Entity& entity, Via const& via);
    bool isInstantiatedBy(Adapter const& member, Adapter const& owner) const;
    void instantiatedIs(Adapter& member, Adapter const& owner);

    void wait(Adapter const& adapter);
    void sendPlace(NboAttrLog::MessageKind kind, Adapter& adapter, StreamAttribute const& attribute);

    bool isWaiting(Adapter const& adapter) const { return isNotBegun(adapter) || flow(adapter); }

    StreamView* view_;  // null until the reader's path is known
    SlotSet announced_;
    SlotSet notBegun_;      // announced, still to be sent as a whole; no member was announced at it
    SlotSet instantiated_;  // sent as a member of the collection of its owner (Adapter::owner)
    std::vector<bool> typesTold_;
    std::deque<EntityId> waiting_;                             // not begun, or with a flow, or gone; twice if come back
    Detail::GradualMap<U32, std::unique_ptr<FlowOut>> flows_;  // by slot
    U64 flowed_ = 0;
    Out key_;  // of the place that ownerOf() has returned
};

}  // namespace Vel::NboAttrLog
