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

// What is known of those who read one output of a view: which entities and types they have been told of, and what they
// still have to be sent. Of a reader that catches up this is its own; all that read the log share one.
class VEL_API FlowConnection {
public:
    explicit FlowConnection(StreamView* view) : view_(view) {}
    FlowConnection(FlowConnection const&) = delete;
    FlowConnection& operator=(FlowConnection const&) = delete;
    virtual ~FlowConnection();

    virtual OutSm& nboAttrLogOut() = 0;
    virtual bool isOkToSerialize() const = 0;  // the output can take another message
    virtual void typeIsNeeded(VelType) {}      // about to be told of this type; may throw StreamRefusal
    // The entity, which the connection was told of, has left the view. `mayReturn`: it is in another one, and so may
    // come back under its id.
    virtual void entityHasGone(EntityId, bool /*mayReturn*/) {}
    virtual void changesAreWritten() {}  // to the output, perhaps, while the connection is a live one

    // Where an entity is referred to, so that a replica can find the one it may have there already.
    struct Via {
        Adapter* parent = nullptr;  // null: it is the root
        StreamAttribute const* attribute = nullptr;
        std::string_view key{};  // of a collection
    };
    void announce(Adapter& adapter, Via const& via);

    // The entity's adapter, in the view from now on; null for null and for what cannot be streamed.
    // REQUIRES: as StreamDemuxer::newAdapter().
    Adapter* adapterOf(Entity* entity);
    // What is referred to, null for nothing, is announced before if it was not. REQUIRES: it is in the view.
    void sendPtr(Adapter& adapter, StreamAttribute const& attribute, Adapter* target);
    // `isNew`: the key comes from a bookmark. Its member may have brought it along when it was announced; where there
    // is none, there is nothing to delete.
    void sendMember(
        Adapter& adapter, StreamAttribute const& attribute, std::string_view key, Adapter* member, bool isNew);
    // Looks up what the collection holds at the key, and sends that. REQUIRES: as adapterOf().
    void sendKey(Adapter& adapter, StreamAttribute const& attribute, std::string_view key, bool isNew);
    void sendKeyDel(Adapter& adapter, StreamAttribute const& attribute, std::string_view key);
    static void writeKeyDel(OutSm& sm, Adapter const& adapter, StreamAttribute const& attribute, std::string_view key);
    // All keys of the collection come between the two; what did not come by then is not there.
    void sendKeysAgain(Adapter& adapter, StreamAttribute const& attribute);
    void sendKeysEnd(Adapter& adapter, StreamAttribute const& attribute);

    // Sends of what is waiting as much as the output takes.
    void continueFlowOut();
    bool hasWaiting() const { return !waiting_.empty(); }
    U64 flowed() const { return flowed_; }  // entities that were done with, and keys that said nothing

    bool isAnnounced(Adapter const& adapter) const { return announced_.has(adapter.slot()); }
    bool isNotBegun(Adapter const& adapter) const { return notBegun_.has(adapter.slot()); }
    FlowOut* flow(Adapter const& adapter) const;  // null: nothing to send, or not begun
    FlowOut& flowIs(Adapter const& adapter, AttributeId from);
    std::size_t flows() const { return flows_.size(); }
    void forget(Adapter const& adapter, bool mayReturn);  // the entity has left the view; see entityHasGone
    void notInstantiated(Adapter const& adapter) { instantiated_.del(adapter.slot()); }

    // Whoever reads along has been told of everything that `other` was told of.
    void knowledgeIs(FlowConnection const& other);
    void typeIsTold(U32 index, bool told);
    void tellType(U32 index);
    void tellTypes();  // all that the view uses
    SlotSet const& announced() const { return announced_; }
    void unannounce(Adapter const& adapter);
    void clear();  // and gives the memory back

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

    StreamView* view_;  // null until it is known
    SlotSet announced_;
    SlotSet notBegun_;      // announced, to be sent as a whole, and no member of its collections has been told of
    SlotSet instantiated_;  // announced through the collection of its owner (Adapter::owner)
    std::vector<bool> typesTold_;
    std::deque<EntityId> waiting_;                             // not begun, with a flow, or gone; perhaps come back
    Detail::GradualMap<U32, std::unique_ptr<FlowOut>> flows_;  // by slot
    U64 flowed_ = 0;
    Out key_;  // of an owner's collection
};

}  // namespace Vel::NboAttrLog
