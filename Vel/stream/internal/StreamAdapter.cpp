#include "Vel/stream/internal/StreamAdapter.h"

#include "Vel/base/Assert.h"
#include "Vel/base/Exception.h"
#include "Vel/stream/internal/RemoteCall.h"
#include "Vel/stream/internal/RemoteGroup.h"
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

namespace {

// Returns null for an adapter that the connection's view cannot have: its readers are told of no entity then.
Sa* inView(FlowConnection const& connection, Sa* adapter) {
    return adapter && connection.view().has(*adapter) ? adapter : nullptr;
}

}  // namespace

// Has the history note that an attribute has changed, if that wants to know. Returns false if this adapter is not there
// any more: observers of the history are told of the change, and may do anything.
inline bool Sa::noted(StreamAttribute const& attribute, NotifieeKey const* key) {
    WriteHistory* const history = streamDemuxer().notifiedHistory();
    return !history || noteIn(*history, attribute, key);
}

bool Sa::noteIn(WriteHistory& history, StreamAttribute const& attribute, NotifieeKey const* key) {
    StreamDemuxer& demuxer = streamDemuxer();
    EntityId const self = id();
    Out bytes;
    if (key) attribute.writeKey(bytes, key->data());
    history.notified(entity(), attribute, bytes.bytes(), demuxer.remoteAuthor());
    return demuxer.adapter(self) == this;
}

void Sa::handleAttribute(AttributeId id) {
    StreamAttribute const* const attribute = table().find(id);
    if (!attribute || attribute->isCollection() || !noted(*attribute)) return;
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
    if (!attribute || !attribute->isCollection() || !noted(*attribute, &key)) return;
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
        if (attribute.kind == StreamKind::values || !demuxer.hasRights())
            return tellKey(attribute, view, isThere, member);
        demuxer.keyIsNamed(*this, attribute, view, member, true);
        tellKey(attribute, view, isThere, member);
        demuxer.keyIsNamed(*this, attribute, view, member, false);
    });
}

void Sa::tellKey(StreamAttribute const& attribute, std::string_view key, bool isThere, Sa* member) {
    StreamDemuxer& demuxer = streamDemuxer();
    for (FlowConnection* const connection : demuxer.catchingUp()) {
        if (!connection->view().mayName(*this, attribute, key)) continue;
        Sa* const seen = inView(*connection, member);
        if (seen && attribute.kind == StreamKind::instances) connection->notInstantiated(*seen);
        bool const isSeen = isThere && (seen || !member);
        demuxer.changeCounted(!flowOutOnAttributeForConnection(*connection, attribute, key, isSeen, seen));
    }
    if (demuxer.live().empty()) return;
    handleCollectionKeySerialization(attribute, key, isThere, member);
    demuxer.changesAreWritten();
}

// The multicast takes single values only.
bool Sa::handleTogether(HeldChanges const& changes) {
    if ((attrLogFlags() & multicastBit) && !(attrLogFlags() & fromRemoteBit)) return false;
    tellOf(changes.changes());
    return true;
}

// Tells readers of the values in one message, and then of each pointer and key. If ids run out meanwhile, this adapter
// is destroyed.
void Sa::tellOf(std::span<HeldChanges::Change const> changes) {
    std::vector<StreamAttribute const*> values;
    std::vector<HeldChanges::Change const*> others;
    for (HeldChanges::Change const& change : changes) {
        StreamAttribute const* const attribute = table().find(change.attribute);
        if (attribute && attribute->kind == StreamKind::value)
            values.push_back(attribute);
        else
            others.push_back(&change);
    }
    StreamDemuxer& demuxer = streamDemuxer();
    EntityId const self = id();
    if (values.size() == 1)
        handleAttribute(values[0]->id);
    else if (!values.empty())
        tellOfValues(values);
    for (HeldChanges::Change const* const change : others) {
        Sa* const still = demuxer.adapter(self);
        if (!still) return;
        if (change->key)
            still->handleAttribute(change->attribute, NotifieeKey(*change->key));
        else
            still->handleAttribute(change->attribute);
    }
}

void Sa::tellOfValues(std::span<StreamAttribute const* const> values) {
    StreamDemuxer& demuxer = streamDemuxer();
    for (StreamAttribute const* const attribute : values)
        if (!noted(*attribute)) return;
    for (FlowConnection* const connection : demuxer.catchingUp()) {
        for (StreamAttribute const* const attribute : values)
            demuxer.changeCounted(!flowOutOnAttributeForConnection(*connection, *attribute));
        togetherForConnection(*connection);
    }
    if (demuxer.live().empty()) return;
    Active const active(entity());
    if (OutSm* const sm = demuxer.liveSm(*this)) FlowConnection::writeValues(*sm, *this, values);
    demuxer.changesAreWritten();
}

void Sa::handleNotifierDel() noexcept { streamDemuxer().notifierDeleted(*this); }

bool Sa::flowOutOnAttributeForConnection(FlowConnection& connection, StreamAttribute const& attribute) {
    if (!connection.isAnnounced(*this) || connection.isNotBegun(*this)) return true;
    return flowOut(connection).velIsDirtyIs(attribute.id, true);
}

void Sa::togetherForConnection(FlowConnection& connection) {
    if (connection.isAnnounced(*this) && !connection.isNotBegun(*this)) flowOut(connection).velIsTogetherIs(true);
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

void Sa::handlePtrSerialization(StreamAttribute const& attribute, Sa* target, FlowConnection* to) {
    if (to) return to->sendPtr(*this, attribute, target);
    eachLive([&](FlowConnection& live) { live.sendPtr(*this, attribute, inView(live, target)); });
}

void Sa::handleCollectionKeySerialization(
    StreamAttribute const& attribute, std::string_view key, bool isThere, Sa* member) {
    Active const active(entity());
    if (attribute.kind == StreamKind::values) return shareKey(attribute, key, isThere);
    eachLive([&](FlowConnection& live) {
        if (live.view().mayName(*this, attribute, key))
            live.sendMember(*this, attribute, key, inView(live, member), false);
    });
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
            if (flow.velIsTogether() && !isPointer) {
                flowOutTogether(connection, flow);
                continue;
            }
            Sa* const target = isPointer ? connection.adapterOf(attribute.target(entity())) : nullptr;
            handleAttributeSerialization(attribute, target, &connection);
            flow.velIsDirtyIs(attribute.id, false);
        }
    }
    return 0;
}

// Sends all values that are flagged in one message, those before the attribute at which the flow has resumed, too.
void Sa::flowOutTogether(FlowConnection& connection, FlowOut& flow) {
    std::vector<StreamAttribute const*> values;
    for (StreamAttribute const& attribute : table().attributes)
        if (attribute.kind == StreamKind::value && flow.velIsDirtyIs(attribute.id, false)) values.push_back(&attribute);
    flow.velIsTogetherIs(false);
    if (values.size() == 1) return handleAttributeSerialization(*values[0], nullptr, &connection);
    Active const active(entity());
    FlowConnection::writeValues(connection.nboAttrLogOut(), *this, values);
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
        connection.sendListedKey(*this, attribute, view, again);
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

// --- what can be read now, or not any more ---

void Sa::tellAgain(StreamView& view, StreamEntities const& changed) {
    for (StreamAttribute const& attribute : table().attributes) {
        if (attribute.kind == StreamKind::pointer) {
            if (changed.contains(attribute.target(entity()))) tellPtrAgain(view, attribute);
        } else if (attribute.holdsEntities()) {
            tellKeysAgain(view, attribute, changed);
        }
    }
}

template <class F> void Sa::eachLiveOf(StreamView const& view, F f) const {
    eachLive([&](FlowConnection& live) {
        if (&live.view() == &view) f(live);
    });
}

void Sa::tellPtrAgain(StreamView& view, StreamAttribute const& attribute) {
    Active const active(entity());
    Entity& entity = *attribute.target(this->entity());
    Sa* const target = view.canHave(entity) ? view.adapterIs(entity) : nullptr;
    for (FlowConnection* const connection : streamDemuxer().catchingUp())
        if (&connection->view() == &view) flowOutOnAttributeForConnection(*connection, attribute);
    eachLiveOf(view, [&](FlowConnection& live) { live.sendPtr(*this, attribute, target); });
}

void Sa::tellKeysAgain(StreamView& view, StreamAttribute const& attribute, StreamEntities const& changed) {
    std::vector<Out> keys;
    std::unique_ptr<NboAttrLog::Bookmark> const bookmark(attribute.bookmark(entity()));
    Out key;
    while (bookmark->left() != 0) {
        key.clear();
        bookmark->next(key);
        In in(key.bytes());
        if (changed.contains(attribute.member(entity(), in))) keys.push_back(std::exchange(key, Out()));
    }
    for (Out const& found : keys) tellKeyAgain(view, attribute, found);
}

void Sa::tellKeyAgain(StreamView& view, StreamAttribute const& attribute, Out const& bytes) {
    Active const active(entity());
    std::string_view const key(reinterpret_cast<char const*>(bytes.data()), bytes.size());
    In in(bytes.bytes());
    Entity* const there = attribute.member(entity(), in);
    Sa* const member = there && view.canHave(*there) ? view.adapterIs(*there) : nullptr;
    if (member) view.keyIsNamed(*this, attribute, key, true);
    if (!view.mayName(*this, attribute, key)) return;
    for (FlowConnection* const connection : streamDemuxer().catchingUp())
        if (&connection->view() == &view)
            flowOutOnAttributeForConnection(*connection, attribute, key, member != nullptr, member);
    eachLiveOf(view, [&](FlowConnection& live) { live.sendMember(*this, attribute, key, member, false); });
    if (!member) view.keyIsNamed(*this, attribute, key, false);
}

// --- changes of readers ---

bool Sa::allowWriteFromReadOnlyRemote() const { return streamDemuxer().remoteMayWrite(); }

void Sa::throwWriteUpdateFromReadOnlyProxyException() const {
    throw ReadOnlyException(format("%s is mounted read-only and takes no changes", entity().path().charPtr()));
}

// Notes who asks for what, if that is wanted. This adapter may be destroyed meanwhile. What comes from a reader without
// rights is not noted: else any reader could push out of the history what others have changed.
template <class Request> WriteAnswer Sa::fromRemote(Request& request) {
    try {
        if (!allowWriteFromReadOnlyRemote()) throwWriteUpdateFromReadOnlyProxyException();
    } catch (ReadOnlyException const& error) {
        return {WriteResult::readOnly, error.text()};
    }
    StreamDemuxer& demuxer = streamDemuxer();
    WriteHistory* const history = demuxer.history();
    if (!history) return applied(request);
    U64 const first = history->end();
    std::size_t const count = request.note(*history, *demuxer.remoteAuthor());
    if (demuxer.hasRights())
        for (std::size_t i = 0; i < count; ++i) history->placeIs(first + i, demuxer.placeOf(entity()));
    WriteAnswer answer = applied(request);
    for (std::size_t i = 0; i < count; ++i) history->answered(first + i, answer);
    return answer;
}

template <class Request> WriteAnswer Sa::applied(Request& request) {
    Ptr<Entity> const keep(&entity());  // an observer may release the entity, and this adapter with it
    StreamDemuxer& demuxer = streamDemuxer();
    EntityId const self = id();
    attrLogFlagsIs(fromRemoteBit, true);
    WriteAnswer answer = request.apply();
    if (Sa* const still = demuxer.adapter(self)) {
        still->attrLogFlagsIs(fromRemoteBit, false);
        still->tellOf(request.untold());
    }
    return answer;
}

WriteAnswer Sa::writeFromRemote(U8 ops, In& body) {
    needInactive(entity());
    RemoteWrite write(*this, ops, body);
    return fromRemote(write);
}

WriteAnswer Sa::writeValuesFromRemote(In& body) {
    needInactive(entity());
    RemoteGroup group(*this, body);
    return fromRemote(group);
}

WriteAnswer Sa::callFromRemote(In& body) {
    needInactive(entity());
    RemoteCall call(*this, body);
    return fromRemote(call);
}

}  // namespace Vel
