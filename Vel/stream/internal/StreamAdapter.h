#pragma once

#include "Vel/describe/StreamTable.h"
#include "Vel/entity/Entity.h"
#include "Vel/stream/FlowOut.h"

namespace Vel {

class StreamDemuxer;

namespace NboAttrLog {
class FlowConnection;
}

// What ties an entity to the connections that it is streamed over. Holds no reference to it.
class VEL_API StreamAdapter : public Notifiee {
public:
    StreamAdapter(StreamDemuxer& demuxer, Entity& entity, EntityId id, U32 slot);
    ~StreamAdapter() override;

    StreamDemuxer& streamDemuxer() const { return demuxer_; }
    Entity& entity() const { return entity_; }
    EntityId id() const { return id_; }
    U32 slot() const { return slot_; }  // a small number of its own, used again when the entity has gone
    StreamTable const& table() const { return table_; }

    // What the connection still has to be sent of this entity: made if need be, or null when that is nothing.
    NboAttrLog::FlowOut& flowOut(NboAttrLog::FlowConnection& connection);
    NboAttrLog::FlowOut* velRawFlowOut(NboAttrLog::FlowConnection const& connection) const;

    // The entity in whose collection this one was made, as connections were last told; 0: none.
    EntityId owner() const { return owner_; }
    void ownerIs(EntityId id) { owner_ = id; }

    // A number for the views whose readers are told of the entity: see StreamDemuxer::liveSm(). 0: it is not known.
    U64 audience() const { return audience_; }
    void audienceIs(U64 number) { audience_ = number; }

    // Applies an attribute that came in. REQUIRES: as needInactive().
    void onAttributeForConnection(AttributeId id, NboAttrLog::In& in);

    // Called before whatever came in is applied to the entity, by a source and by a replica. REQUIRES: the entity is
    // not being written out at the same time ("!_isActive"), by whatever source.
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

// Writes the attributes of one entity: one that has changed to the logs of all views that have the entity, or those
// that are flagged to the reader that is being flowed out to.
class VEL_API Entity::VelNboAttrLogSa : public StreamAdapter, public NboAttrLog::SerializeSink {
public:
    VelNboAttrLogSa(StreamDemuxer& demuxer, Entity& entity, EntityId id, U32 slot);
    ~VelNboAttrLogSa() override;

    void handleAttribute(AttributeId id) override;
    void handleAttribute(AttributeId id, NotifieeKey const& key) override;
    void handleNotifierDel() noexcept override;

    bool doMessageMulticast(AttributeId id) override;
    NboAttrLog::OutSm* singletonSerializeCheck(
        AttributeId id, NboAttrLog::FlowConnection* to, bool whole, std::size_t encodedSize, bool isKey) override;
    // Write a value or pointer, whose `target` was looked up, to the connection; null: to all that read along.
    void handleAttributeSerialization(
        StreamAttribute const& attribute, VelNboAttrLogSa* target, NboAttrLog::FlowConnection* to);
    void handlePtrSerialization(
        StreamAttribute const& attribute, VelNboAttrLogSa* target, NboAttrLog::FlowConnection* to);
    // Writes what was found at the key of a collection, to all that read along. `member`: null for none, and of values.
    void handleCollectionKeySerialization(
        StreamAttribute const& attribute, std::string_view key, bool isThere, VelNboAttrLogSa* member);

    // Flows out to the connection, in the order of the attribute ids from `from` on, what the flow says is to be sent.
    // 0: all of it; else the id to go on at, since the connection takes no more; all ones for an id that is none of the
    // streamed ones and not 0.
    AttributeId continueFlowOut(NboAttrLog::FlowConnection& connection, NboAttrLog::FlowOut& flow, AttributeId from);

    // Flags a change for a connection that catches up. Whether it was clean before. `member`: what is at the key now,
    // or null when that can't be looked up.
    bool flowOutOnAttributeForConnection(NboAttrLog::FlowConnection& connection, StreamAttribute const& attribute);
    bool flowOutOnAttributeForConnection(NboAttrLog::FlowConnection& connection, StreamAttribute const& attribute,
        std::string_view key, bool isThere, VelNboAttrLogSa const* member);

    // A reader wants to change an attribute. Throws ReadOnlyException when it may not.
    void writeFromRemote(AttributeId id, NboAttrLog::In& in);
    bool allowWriteFromReadOnlyRemote() const;  // the reader whose input is being taken may write
    [[noreturn]] void throwWriteUpdateFromReadOnlyProxyException() const;

private:
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
