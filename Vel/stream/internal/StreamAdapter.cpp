#include "Vel/stream/internal/StreamAdapter.h"

#include "Vel/base/Assert.h"
#include "Vel/base/Exception.h"
#include "Vel/stream/internal/RemoteWrite.h"
#include "Vel/stream/internal/StreamView.h"

namespace Vel {

using NboAttrLog::FlowConnection;
using NboAttrLog::FlowOut;
using NboAttrLog::In;
using NboAttrLog::MessageKind;
using NboAttrLog::Out;
using NboAttrLog::OutSm;

StreamAdapter::StreamAdapter(StreamDemuxer& demuxer, Entity& entity, EntityId id, U32 slot)
    : demuxer_(demuxer), entity_(entity), table_(entity.fwkType().glue().stream()), id_(id), slot_(slot) {}
StreamAdapter::~StreamAdapter() = default;

FlowOut* StreamAdapter::velRawFlowOut(FlowConnection const& connection) const {
    return connection.flow(static_cast<Entity::VelNboAttrLogSa const&>(*this));
}

FlowOut& StreamAdapter::flowOut(FlowConnection& connection) {
    if (FlowOut* const flow = velRawFlowOut(connection)) return *flow;
    return connection.flowIs(static_cast<Entity::VelNboAttrLogSa&>(*this), FlowOut::fromEnd);
}

// Marks an entity as being written out, while this exists. The mark is for the entity and not for one adapter: the
// entity may be part of a replica, and may be served by several sources. The marks of a thread are a list, which is
// empty unless a message is being written.
class StreamAdapter::Active {
public:
    explicit Active(Entity const& entity) : entity_(entity), before_(innermost_) { innermost_ = this; }
    Active(Active const&) = delete;
    Active& operator=(Active const&) = delete;
    ~Active() { innermost_ = before_; }

    static bool is(Entity const& entity) {
        for (Active const* at = innermost_; at; at = at->before_)
            if (&at->entity_ == &entity) return true;
        return false;
    }

private:
    Entity const& entity_;
    Active const* before_;
    static constinit thread_local Active const* innermost_;
};
constinit thread_local StreamAdapter::Active const* StreamAdapter::Active::innermost_ = nullptr;

void StreamAdapter::needInactive(Entity const& entity) {
    bool const _isActive = Active::is(entity);
    if (_isActive)
        assertionFailed("!_isActive", "/src/Vel/StreamAdapter", __LINE__,
            "static void Vel::StreamAdapter::needInactive(const Vel::Entity&)");
}

void StreamAdapter::onAttributeForConnection(AttributeId id, In& in) {
    needInactive(entity_);
    StreamAttribute const* const attribute = table_.find(id);
    if (!attribute || attribute->kind != StreamKind::value)
        throw StreamException(format("%s has no value attribute %u", entity_.fwkType().name(), id), in.offset());
    attribute->apply(entity_, in);
}

using Sa = Entity::VelNboAttrLogSa;

Sa::VelNboAttrLogSa(StreamDemuxer& demuxer, Entity& entity, EntityId id, U32 slot)
    : StreamAdapter(demuxer, entity, id, slot) {
    notifierIs(&entity);
}
Sa::~VelNboAttrLogSa() = default;

// --- changes ---

void Sa::handleAttribute(AttributeId id) {
    StreamAttribute const* const attribute = table().find(id);
    if (!attribute || attribute->isCollection()) return;
    StreamDemuxer& demuxer = streamDemuxer();
    auto const tell = [&](Sa* target) {
        for (FlowConnection* const connection : demuxer.catchingUp())
            demuxer.changeCounted(!flowOutOnAttributeForConnection(*connection, *attribute));
        if (demuxer.live().empty() && !(attrLogFlags() & multicastBit)) return;
        handleAttributeSerialization(*attribute, target, nullptr);
        demuxer.changesAreWritten();
    };
    if (attribute->kind != StreamKind::pointer) return tell(nullptr);  // a value adds no entity to a view
    demuxer.givingIds([&] {
        Entity* const entity = attribute->target(this->entity());
        Sa* const target = entity ? demuxer.referredIs(*this, *entity) : nullptr;
        demuxer.referenceDropped(*this);
        tell(target);
    });
}

void Sa::handleAttribute(AttributeId id, NotifieeKey const& key) {
    StreamAttribute const* const attribute = table().find(id);
    if (!attribute || !attribute->isCollection()) return;
    Out& bytes = streamDemuxer().keyOut();
    bytes.clear();
    attribute->writeKey(bytes, key.data());
    keyChanged(*attribute, bytes.bytes());
}

void Sa::keyChanged(StreamAttribute const& attribute, std::span<U8 const> key) {
    StreamDemuxer& demuxer = streamDemuxer();
    demuxer.givingIds([&] {
        In in(key);
        Sa* member = nullptr;
        bool isThere = false;
        if (attribute.kind == StreamKind::values) {
            isThere = attribute.holds(this->entity(), in);
        } else {
            Entity* const entity = attribute.member(this->entity(), in);
            member = entity ? demuxer.referredIs(*this, *entity) : nullptr;
            isThere = member != nullptr;
            if (!isThere) demuxer.referenceDropped(*this);
        }

        std::string_view const view(reinterpret_cast<char const*>(key.data()), key.size());
        for (FlowConnection* const connection : demuxer.catchingUp()) {
            if (member && attribute.kind == StreamKind::instances) connection->notInstantiated(*member);
            demuxer.changeCounted(!flowOutOnAttributeForConnection(*connection, attribute, view, isThere, member));
        }
        if (demuxer.live().empty()) return;
        handleCollectionKeySerialization(attribute, view, isThere, member);
        demuxer.changesAreWritten();
    });
}

void Sa::handleNotifierDel() noexcept { streamDemuxer().notifierDeleted(*this); }

bool Sa::flowOutOnAttributeForConnection(FlowConnection& connection, StreamAttribute const& attribute) {
    if (!connection.isAnnounced(*this) || connection.isNotBegun(*this)) return true;
    return flowOut(connection).velIsDirtyIs(attribute.id, true);
}

bool Sa::flowOutOnAttributeForConnection(FlowConnection& connection, StreamAttribute const& attribute,
    std::string_view key, bool isThere, Sa const* member) {
    if (!connection.isAnnounced(*this) || connection.isNotBegun(*this)) return true;
    FlowOut& flow = flowOut(connection);
    bool const isBegun = flow.bookmark() && flow.resumeId() == attribute.id;
    // A collection whose listing has not begun is sent as a whole later, so its keys need no flags. But a member may
    // have been announced already, because another attribute refers to it. Its deletion has to be sent, unless the
    // listing says it anyway.
    bool const mayBeTold = attribute.kind == StreamKind::instances && !flow.velComesAgain(attribute.id);
    if (!flow.velHasSynced(attribute.id) && !isBegun && (isThere || !mayBeTold)) return true;
    bool const ephemeral =
        isThere && streamDemuxer().checkEphemeralEntityDeletion(connection, flow, attribute, key, member);
    if (!flow.velKeyIsDirtyIs(attribute.id, key, ephemeral)) return false;
    // Keys that came and went would stay flagged for ever. So more flags than members are dropped, and all keys come
    // again.
    if (flow.velHasTooManyKeys(attribute.id, [&] { return attribute.count(entity()); }))
        flow.velComesAgainIs(attribute.id, true);
    return true;
}

// --- writing ---

bool Sa::doMessageMulticast(AttributeId id) { return streamDemuxer().multicast(*this, id); }

OutSm* Sa::singletonSerializeCheck(AttributeId id, FlowConnection* to, bool, std::size_t encodedSize, bool isKey) {
    OutSm* const sm = to ? &to->nboAttrLogOut() : streamDemuxer().liveSm(*this);
    if (!sm) return nullptr;
    EntityId const self = this->id();
    std::size_t const size = NboAttrLog::compactSize(self) + NboAttrLog::compactSize(id) + encodedSize;
    sm->begin(isKey ? MessageKind::keySet : MessageKind::value, size)
        << NboAttrLog::Compact{self} << NboAttrLog::Compact{id};
    return sm;
}

// Calls f(connection) for all live connections that were told of the entity. Backwards, since f runs code of entities,
// which may make a connection leave the list.
template <class F> void Sa::eachLive(F f) const {
    auto const& live = streamDemuxer().live();
    for (std::size_t i = live.size(); i-- > 0;)
        if (i < live.size() && live[i]->isAnnounced(*this)) f(*live[i]);
}

void Sa::handleAttributeSerialization(StreamAttribute const& attribute, Sa* target, FlowConnection* to) {
    Active const active(entity());
    if (attribute.kind == StreamKind::value)
        attribute.serialize(*this, attribute.id, entity(), to);
    else
        handlePtrSerialization(attribute, target, to);
}

namespace {

// Returns null for an adapter that the connection's view cannot have: its readers are told of no entity then.
Sa* inView(FlowConnection const& connection, Sa* adapter) {
    return adapter && connection.view().has(*adapter) ? adapter : nullptr;
}

}  // namespace

void Sa::handlePtrSerialization(StreamAttribute const& attribute, Sa* target, FlowConnection* to) {
    if (to) return to->sendPtr(*this, attribute, target);
    eachLive([&](FlowConnection& live) { live.sendPtr(*this, attribute, inView(live, target)); });
}

void Sa::handleCollectionKeySerialization(
    StreamAttribute const& attribute, std::string_view key, bool isThere, Sa* member) {
    Active const active(entity());
    if (attribute.kind == StreamKind::values) return shareKey(attribute, key, isThere);
    eachLive([&](FlowConnection& live) { live.sendMember(*this, attribute, key, inView(live, member), false); });
}

void Sa::shareKey(StreamAttribute const& attribute, std::string_view key, bool isThere) {
    std::span<U8 const> const bytes(reinterpret_cast<U8 const*>(key.data()), key.size());
    if (isThere)
        attribute.serializeKey(*this, attribute.id, entity(), bytes, nullptr);
    else if (OutSm* const sm = streamDemuxer().liveSm(*this))
        FlowConnection::writeKeyDel(*sm, *this, attribute, key);
}

// --- flowing out ---

namespace {

// While this exists, changes of the entity are written to the log, and not delivered by the multicast.
class Flowing {
public:
    explicit Flowing(Sa& adapter) : adapter_(adapter) { adapter_.attrLogFlagsIs(Sa::flowingOutBit, true); }
    Flowing(Flowing const&) = delete;
    Flowing& operator=(Flowing const&) = delete;
    ~Flowing() { adapter_.attrLogFlagsIs(Sa::flowingOutBit, false); }

private:
    Sa& adapter_;
};

}  // namespace

AttributeId Sa::continueFlowOut(FlowConnection& connection, FlowOut& flow, AttributeId from) {
    if (from != 0 && !table().find(from)) return ~AttributeId(0);
    Flowing const flowing(*this);
    for (StreamAttribute const& attribute : table().attributes) {
        if (attribute.id < from) continue;
        if (attribute.isCollection()) {
            if (AttributeId const stopped = flowOutCollection(connection, flow, attribute)) return stopped;
        } else if (flow.velIsDirty(attribute.id)) {
            if (!connection.isOkToSerialize()) return attribute.id;
            bool const isPointer = attribute.kind == StreamKind::pointer;
            Sa* const target = isPointer ? connection.adapterOf(attribute.target(entity())) : nullptr;
            handleAttributeSerialization(attribute, target, &connection);
            flow.velIsDirtyIs(attribute.id, false);
        }
    }
    return 0;
}

AttributeId Sa::flowOutCollection(FlowConnection& connection, FlowOut& flow, StreamAttribute const& attribute) {
    Active const active(entity());
    if (!flow.velHasSynced(attribute.id) && !flowOutAllKeys(connection, flow, attribute)) return attribute.id;
    while (flow.velHasDirtyKeys(attribute.id)) {
        if (!connection.isOkToSerialize()) return attribute.id;
        FlowOut::DirtyKey const dirty = flow.velDirtyKeyTake(attribute.id);
        if (dirty.ephemeral) connection.sendKeyDel(*this, attribute, dirty.key);
        connection.sendKey(*this, attribute, dirty.key, false);
    }
    return 0;
}

// Returns whether all keys are sent. If they come again, each key is sent, even if the reader may have it.
bool Sa::flowOutAllKeys(FlowConnection& connection, FlowOut& flow, StreamAttribute const& attribute) {
    bool const again = flow.velComesAgain(attribute.id);
    if (!flow.bookmark()) {
        if (again && !connection.isOkToSerialize()) return false;
        if (again) connection.sendKeysAgain(*this, attribute);
        flow.bookmarkIs(std::unique_ptr<NboAttrLog::Bookmark>(attribute.bookmark(entity())));
    }
    Out key;
    while (flow.bookmark()->left() != 0) {
        if (!connection.isOkToSerialize()) return false;
        key.clear();
        flow.bookmark()->next(key);
        std::string_view const view(reinterpret_cast<char const*>(key.data()), key.size());
        connection.sendKey(*this, attribute, view, !again);
        // A value is sent with its key, so an earlier change of it needs no flag any more. The flag of a member stays,
        // since it may say that a deletion has to be sent first.
        if (attribute.kind == StreamKind::values) flow.velDirtyKeyDel(attribute.id, view);
    }
    if (again) connection.sendKeysEnd(*this, attribute);
    flow.bookmarkIs(nullptr);
    flow.velHasSyncedIs(attribute.id, true);
    flow.velComesAgainIs(attribute.id, false);
    return true;
}

// --- changes of readers ---

bool Sa::allowWriteFromReadOnlyRemote() const { return streamDemuxer().remoteMayWrite(); }

void Sa::throwWriteUpdateFromReadOnlyProxyException() const {
    throw ReadOnlyException(format("%s is mounted read-only and takes no changes", entity().path().charPtr()));
}

WriteAnswer Sa::writeFromRemote(U8 ops, In& body) {
    needInactive(entity());
    RemoteWrite const write(*this, ops, body);
    try {
        if (!allowWriteFromReadOnlyRemote()) throwWriteUpdateFromReadOnlyProxyException();
    } catch (ReadOnlyException const& error) {
        return {WriteResult::readOnly, error.text()};
    }
    Ptr<Entity> const keep(&entity());  // an observer may release the entity, and this adapter with it
    StreamDemuxer& demuxer = streamDemuxer();
    EntityId const self = id();
    attrLogFlagsIs(fromRemoteBit, true);
    WriteAnswer answer = write.apply();
    Sa* const still = demuxer.adapter(self);
    if (!still) return answer;
    still->attrLogFlagsIs(fromRemoteBit, false);
    if (answer.result == WriteResult::observerFailed) still->tellAgain(write);
    return answer;
}

// Tells readers of a change that they may not have been told of, since an observer before this one has thrown.
void Sa::tellAgain(RemoteWrite const& write) {
    if (write.attribute().isCollection())
        keyChanged(write.attribute(), write.key());
    else
        handleAttribute(write.attribute().id);
}

}  // namespace Vel
