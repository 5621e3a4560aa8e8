#pragma once

#include "Vel/stream/AttrLogReplica.h"
#include "Vel/stream/internal/PeerTypes.h"
#include "Vel/stream/internal/ReplicaEntities.h"
#include "Vel/stream/internal/ReplicaNesting.h"
#include "Vel/stream/internal/ReplicaPlace.h"
#include "Vel/stream/internal/ReplicaWrites.h"
#include "Vel/stream/internal/UnmentionedKeys.h"

namespace Vel {

// Applies the messages of a source to a copy.
class AttrLogReplica::Impl {
public:
    // The limits must outlive it.
    Impl(Ptr<Entity> root, Ptr<Dir> parent, String name, StreamPolicy policy, StreamLimits const& limits);

    State state() const { return state_; }
    void onStateIs(std::function<void(State)> told) { onState_ = std::move(told); }
    Ptr<Entity> const& root() const { return root_; }
    bool mayWrite() const { return mayWrite_; }
    ReplicaEntities const& entities() const { return entities_; }
    ReplicaWrites& writes() { return writes_; }
    PeerTypes const& types() const { return types_; }

    void connected();     // called for a new connection, of which nothing is known yet
    void disconnected();  // called when the connection has ended
    void handleMessage(NboAttrLog::MessageKind kind, NboAttrLog::In& body);

private:
    void welcome(NboAttrLog::In& body);
    void typesChanged();
    void announce(NboAttrLog::In& body);
    void value(NboAttrLog::In& body);
    void values(NboAttrLog::In& body);
    void keySet(NboAttrLog::In& body);
    void keyDel(NboAttrLog::In& body);
    void keysAgain(NboAttrLog::In& body);
    void keysEnd(NboAttrLog::In& body);
    void gone(NboAttrLog::In& body);
    void synced();

    ReplicaPlace place(NboAttrLog::In& body);
    ReplicaPlace collection(NboAttrLog::In& body);
    Ptr<Entity> rootOf(VelType type);
    Ptr<Entity> announced(VelType type, ReplicaPlace const& place, String const& name);
    Ptr<Entity> instantiate(VelType type, ReplicaPlace const& place, String const& name, Entity* there);
    void bind(EntityId id, Ptr<Entity> entity, StreamTable const& table);
    void placeOther(VelType type, bool tellsName, ReplicaPlace& place, String& name);
    void keyValue(ReplicaPlace const& place, NboAttrLog::In& body);
    void valueDel(ReplicaPlace const& place);
    void told(ReplicaPlace const& place, bool isThere = true);
    void awaitsPlace(EntityId id);
    std::vector<Ptr<Entity>> settled(bool isComplete);
    void delUnmentioned(EntityId id, AttributeId attribute, UnmentionedKeys::Keys const& keys);
    void forgetSource();
    void stateIs(State state);

    StreamLimits const& limits_;
    Ptr<Dir> parent_;
    String name_;
    Ptr<Entity> root_;
    State state_ = State::empty;
    std::function<void(State)> onState_;
    U64 connection_ = 0;  // changes when a connection begins or ends

    // Of this connection:
    bool welcomed_ = false;
    bool mayWrite_ = false;
    EntityId rootId_ = 0;  // 0: nothing has been announced
    PeerTypes types_;
    ReplicaEntities entities_;
    UnmentionedKeys unmentioned_;
    ReplicaWrites writes_;
    ReplicaNesting nesting_;
    std::vector<EntityId> unplaced_;  // announced before the sync mark when they had no parent
    bool isForKey_ = false;           // what was announced last is to be put into a collection by the next message
};

}  // namespace Vel
