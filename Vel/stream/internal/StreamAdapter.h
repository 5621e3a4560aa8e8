#pragma once

#include "Vel/describe/StreamTable.h"
#include "Vel/entity/Entity.h"
#include "Vel/entity/Together.h"
#include "Vel/stream/FlowOut.h"
#include "Vel/stream/StreamWrite.h"

#include <unordered_set>

namespace Vel {

class StreamDemuxer;
class WriteHistory;
class StreamView;
using StreamEntities = std::unordered_set<Entity const*>;

namespace NboAttrLog {
class FlowConnection;
}

// Ties an entity to the connections over which it is streamed. Holds no reference to the entity.
class VEL_API StreamAdapter : public Notifiee {
public:
    StreamAdapter(StreamDemuxer& demuxer, Entity& entity, EntityId id, U32 slot);
    ~StreamAdapter() override;

    StreamDemuxer& streamDemuxer() const { return demuxer_; }
    Entity& entity() const { return entity_; }
    EntityId id() const { return id_; }
    U32 slot() const { return slot_; }  // a small number of its own, used again when this adapter has gone
    StreamTable const& table() const { return table_; }

    // What the connection still has to be sent of this entity. If it is nothing, flowOut() makes an empty flow, and
    // velRawFlowOut() returns null.
    NboAttrLog::FlowOut& flowOut(NboAttrLog::FlowConnection& connection);
    NboAttrLog::FlowOut* velRawFlowOut(NboAttrLog::FlowConnection const& connection) const;

    // The id of the owner, in whose collection this entity is a member, as connections were last told. 0: none.
    EntityId owner() const { return owner_; }
    void ownerIs(EntityId id) { owner_ = id; }

    // A number for the set of live connections that were told of the entity: see StreamDemuxer::liveSm(). 0: not known.
    U64 audience() const { return audience_; }
    void audienceIs(U64 number) { audience_ = number; }

    // Applies the value of an attribute that a source has sent. REQUIRES: as needInactive().
    void onAttributeForConnection(AttributeId id, NboAttrLog::In& in);

    // Called by a source or a replica before it applies a message to the entity. REQUIRES: no source is writing the
    // entity out at the same time (assertion "!_isActive").
    static void needInactive(Entity const& entity);

protected:
    class Active;  // an entity is being written out

private:
    StreamDemuxer& demuxer_;
    Entity& entity_;
    StreamTable const& table_;
    EntityId id_;
    U32 slot_;
    EntityId owner_ = 0;
    U64 audience_ = 0;
};

// Writes the attributes of one entity. An attribute that has changed is written to the logs of all views that have the
// entity. Flagged attributes are written to the reader that catches up.
class VEL_API Entity::VelNboAttrLogSa : public StreamAdapter, public NboAttrLog::SerializeSink {
public:
    VelNboAttrLogSa(StreamDemuxer& demuxer, Entity& entity, EntityId id, U32 slot);
    ~VelNboAttrLogSa() override;

    void handleAttribute(AttributeId id) override;
    void handleAttribute(AttributeId id, NotifieeKey const& key) override;
    bool handleTogether(HeldChanges const& changes) override;
    void handleNotifierDel() noexcept override;

    bool doMessageMulticast(AttributeId id) override;
    NboAttrLog::OutSm* singletonSerializeCheck(
        AttributeId id, NboAttrLog::FlowConnection* to, bool whole, std::size_t encodedSize, bool isKey) override;
    // Write a value or a pointer to the connection `to`, or if that is null, for all live readers. `target` is what the
    // pointer refers to, or null.
    void handleAttributeSerialization(
        StreamAttribute const& attribute, VelNboAttrLogSa* target, NboAttrLog::FlowConnection* to);
    void handlePtrSerialization(
        StreamAttribute const& attribute, VelNboAttrLogSa* target, NboAttrLog::FlowConnection* to);
    // Writes what a collection has at the key, for all live readers. `member` is null if it has none, and for a value.
    void handleCollectionKeySerialization(
        StreamAttribute const& attribute, std::string_view key, bool isThere, VelNboAttrLogSa* member);

    // Sends what is flagged in `flow` to the connection, in the order of the attribute ids, from `from` on. Returns 0
    // if all of it was sent. If the connection takes no more, returns the id of the attribute at which to resume.
    // Returns all ones if `from` is neither 0 nor the id of a streamed attribute.
    AttributeId continueFlowOut(NboAttrLog::FlowConnection& connection, NboAttrLog::FlowOut& flow, AttributeId from);

    // Flags a change for a connection that catches up. Returns false if it was flagged already. `member` is the member
    // at the key now, or null if it is not known.
    bool flowOutOnAttributeForConnection(NboAttrLog::FlowConnection& connection, StreamAttribute const& attribute);
    bool flowOutOnAttributeForConnection(NboAttrLog::FlowConnection& connection, StreamAttribute const& attribute,
        std::string_view key, bool isThere, VelNboAttrLogSa const* member);
    // The values of this entity that are flagged for the connection are to be sent in one message.
    void togetherForConnection(NboAttrLog::FlowConnection& connection);

    // Tells the readers of the view again of each attribute and key that refers to one of these entities: some of them
    // can be read now, and the others cannot any more.
    void tellAgain(StreamView& view, StreamEntities const& changed);

    // Apply what a reader asks for, and return the answer: see RemoteWrite, RemoteGroup and RemoteCall. REQUIRES: as
    // needInactive().
    WriteAnswer writeFromRemote(U8 ops, NboAttrLog::In& body);
    WriteAnswer writeValuesFromRemote(NboAttrLog::In& body);
    WriteAnswer callFromRemote(NboAttrLog::In& body);
    bool allowWriteFromReadOnlyRemote() const;  // whether the reader whose message is being handled may write
    [[noreturn]] void throwWriteUpdateFromReadOnlyProxyException() const;

private:
    bool noted(StreamAttribute const& attribute, NotifieeKey const* key = nullptr);
    bool noteIn(WriteHistory& history, StreamAttribute const& attribute, NotifieeKey const* key);
    void keyChanged(StreamAttribute const& attribute, std::span<U8 const> key);
    void tellKey(StreamAttribute const& attribute, std::string_view key, bool isThere, VelNboAttrLogSa* member);
    void tellPtrAgain(StreamView& view, StreamAttribute const& attribute);
    void tellKeysAgain(StreamView& view, StreamAttribute const& attribute, StreamEntities const& changed);
    void tellKeyAgain(StreamView& view, StreamAttribute const& attribute, NboAttrLog::Out const& key);
    template <class F> void eachLiveOf(StreamView const& view, F f) const;
    template <class Request> WriteAnswer fromRemote(Request& request);
    template <class Request> WriteAnswer applied(Request& request);
    void tellOf(std::span<HeldChanges::Change const> changes);
    void tellOfValues(std::span<StreamAttribute const* const> values);
    void flowOutTogether(NboAttrLog::FlowConnection& connection, NboAttrLog::FlowOut& flow);
    void shareKey(StreamAttribute const& attribute, std::string_view key, bool isThere);
    template <class F> void eachLive(F f) const;
    AttributeId flowOutCollection(
        NboAttrLog::FlowConnection& connection, NboAttrLog::FlowOut& flow, StreamAttribute const& attribute);
    bool flowOutAllKeys(
        NboAttrLog::FlowConnection& connection, NboAttrLog::FlowOut& flow, StreamAttribute const& attribute);
};

namespace NboAttrLog {
using Adapter = Entity::VelNboAttrLogSa;
}

}  // namespace Vel
