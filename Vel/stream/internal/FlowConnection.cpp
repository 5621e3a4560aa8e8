#include "Vel/stream/internal/FlowConnection.h"

#include "Vel/stream/internal/OneValue.h"
#include "Vel/stream/internal/StreamView.h"

#include <algorithm>

namespace Vel::NboAttrLog {

namespace {

std::string_view viewOf(Out const& out) { return {reinterpret_cast<char const*>(out.data()), out.size()}; }
std::span<U8 const> bytesOf(std::string_view view) { return {reinterpret_cast<U8 const*>(view.data()), view.size()}; }

void put(Out& out, std::string_view bytes) {
    if (!bytes.empty()) std::memcpy(out.append(bytes.size()), bytes.data(), bytes.size());
}

std::size_t placeSize(Adapter const& adapter, StreamAttribute const& attribute) {  // without the key
    return compactSize(adapter.id()) + compactSize(attribute.id);
}
void putPlace(Out& out, Adapter const& adapter, StreamAttribute const& attribute, std::string_view key) {
    out << Compact{adapter.id()} << Compact{attribute.id};
    put(out, key);
}

}  // namespace

FlowConnection::~FlowConnection() = default;

// --- flows ---

FlowOut* FlowConnection::flow(Adapter const& adapter) const {
    auto const* const found = flows_.find(adapter.slot());
    return found ? found->get() : nullptr;
}

FlowOut& FlowConnection::flowIs(Adapter const& adapter, AttributeId from) {
    auto* const there = flows_.find(adapter.slot());
    std::unique_ptr<FlowOut>& flow = there ? *there : flows_.add(adapter.slot(), nullptr);
    StreamTable const& table = adapter.table();
    flow.reset(table.newFlowOut ? table.newFlowOut(table, from) : new FlowOut(table, from));
    if (!notBegun_.has(adapter.slot())) wait(adapter);
    notBegun_.del(adapter.slot());
    return *flow;
}

// Adds the entity to waiting_. Entities that have gone, or that are there twice since they came back, are removed when
// they may be half of all. Else waiting_ would grow for ever behind an entity that changes faster than it is sent, and
// so is never done.
void FlowConnection::wait(Adapter const& adapter) {
    if (waiting_.size() > 64 && waiting_.size() > 2 * view_->entities()) {
        SlotSet seen;
        std::erase_if(waiting_, [&](EntityId id) {
            Adapter const* const other = view_->adapter(id);
            if (!other || !isWaiting(*other) || seen.has(other->slot())) return true;
            seen.add(other->slot());
            return false;
        });
    }
    waiting_.push_back(adapter.id());
}

void FlowConnection::continueFlowOut() {
    while (!waiting_.empty() && isOkToSerialize()) {
        Adapter* const adapter = view_->adapter(waiting_.front());
        FlowOut* flow = adapter ? this->flow(*adapter) : nullptr;
        if (!flow && adapter && isNotBegun(*adapter)) flow = &flowIs(*adapter, FlowOut::fromStart);
        if (!flow) {  // it has gone, or has come back and was sent already
            waiting_.pop_front();
            continue;
        }
        AttributeId const stopped = adapter->continueFlowOut(*this, *flow, flow->resumeId());
        if (stopped != 0) {
            flow->resumeIdIs(stopped);
            return;
        }
        flow->velResyncStateDel();
        if (!flow->isClean()) continue;  // something that the flow had passed was flagged again
        flows_.erase(adapter->slot());
        waiting_.pop_front();
        ++flowed_;
    }
}

// --- entities ---

Adapter* FlowConnection::adapterOf(Entity* entity) { return entity ? view_->adapterIs(*entity) : nullptr; }

// Returns the place in the collection that makes the entity, if its owner has been announced. Else returns `via`.
FlowConnection::Via FlowConnection::ownerOf(Entity& entity, Via const& via) {
    Entity* const parent = entity.parent();
    Adapter* const owner = parent ? view_->demuxer().adapter(*parent) : nullptr;
    if (!owner || !isAnnounced(*owner)) return via;
    for (StreamAttribute const& attribute : owner->table().attributes) {
        if (attribute.kind != StreamKind::instances || !attribute.keyIsName) continue;
        key_.clear();
        key_ << entity.name();
        In key(key_.bytes());
        if (attribute.member(*parent, key) == &entity) return {owner, &attribute, viewOf(key_)};
    }
    return via;
}

void FlowConnection::announce(Adapter& adapter, Via const& via) {
    VelType const type = adapter.entity().fwkType();
    U32 const index = view_->typeIndex(type);
    tellType(index);
    bool const instantiated = via.attribute && via.attribute->kind == StreamKind::instances;
    bool const tellsName = adapter.table().takesName && !(instantiated && type == via.attribute->type());
    String const name = tellsName ? adapter.entity().name() : String();
    EntityId const parent = via.parent ? via.parent->id() : 0;
    std::size_t const size = compactSize(adapter.id()) + compactSize(index) + compactSize(parent) +
                             (via.parent ? compactSize(via.attribute->id) + via.key.size() : 0) +
                             (tellsName ? 4 + name.length() : 0);
    Out& out = nboAttrLogOut().begin(MessageKind::announce, size);
    out << Compact{adapter.id()} << Compact{index} << Compact{parent};
    if (via.parent) {
        out << Compact{via.attribute->id};
        put(out, via.key);
    }
    if (tellsName) out << name;
    Impl::outSmCommitMessage(nboAttrLogOut());

    if (via.parent && via.attribute->holdsEntities()) view_->keyIsNamed(*via.parent, *via.attribute, via.key, true);
    announced_.add(adapter.slot());
    notBegun_.add(adapter.slot());
    wait(adapter);
    if (!instantiated) return;
    instantiatedIs(adapter, *via.parent);
    // A part of the owner's collection has been sent now. So the owner's flow begins, and a deletion of the member is
    // flagged there.
    if (isNotBegun(*via.parent)) flowIs(*via.parent, FlowOut::fromStart);
    // The announcement also says what is at the key, so the key needs no flag.
    if (FlowOut* const flow = this->flow(*via.parent)) flow->velDirtyKeyDel(via.attribute->id, via.key);
}

bool FlowConnection::isInstantiatedBy(Adapter const& member, Adapter const& owner) const {
    return instantiated_.has(member.slot()) && member.owner() == owner.id();
}

// Notes that the member was sent as one of this owner. What other connections were told of an earlier owner is
// forgotten.
void FlowConnection::instantiatedIs(Adapter& member, Adapter const& owner) {
    if (member.owner() != owner.id()) {
        StreamDemuxer const& demuxer = view_->demuxer();
        for (auto const* const connections : {&demuxer.catchingUp(), &demuxer.live()})
            for (FlowConnection* const other : *connections) other->notInstantiated(member);
        member.ownerIs(owner.id());
    }
    instantiated_.add(member.slot());
}

void FlowConnection::sendPtr(Adapter& adapter, StreamAttribute const& attribute, Adapter* target) {
    if (target && !isAnnounced(*target)) announce(*target, ownerOf(target->entity(), {&adapter, &attribute, {}}));
    OutSm& sm = nboAttrLogOut();
    Out& out = sm.begin(MessageKind::value, placeSize(adapter, attribute) + 4);
    putPlace(out, adapter, attribute, {});
    out << (target ? target->id() : EntityId(0));
    Impl::outSmCommitMessage(sm);
}

void FlowConnection::sendKey(Adapter& adapter, StreamAttribute const& attribute, std::string_view key, bool isNew) {
    In in(bytesOf(key));
    if (attribute.kind != StreamKind::values) {
        Adapter* const member = adapterOf(attribute.member(adapter.entity(), in));
        sendMember(adapter, attribute, key, member, isNew);
    } else if (attribute.holds(adapter.entity(), in)) {
        attribute.serializeKey(adapter, attribute.id, adapter.entity(), bytesOf(key), this);
    } else {
        sendNothing(adapter, attribute, key, isNew);
    }
}

// A key at which there is nothing that the reader may read is not named. If all keys come again, the copy deletes those
// that are not named.
void FlowConnection::sendListedKey(
    Adapter& adapter, StreamAttribute const& attribute, std::string_view key, bool again) {
    if (again && view_->rights() && attribute.holdsEntities()) {
        In in(bytesOf(key));
        again = adapterOf(attribute.member(adapter.entity(), in)) != nullptr;
    }
    sendKey(adapter, attribute, key, !again);
}

void FlowConnection::sendNothing(Adapter& adapter, StreamAttribute const& attribute, std::string_view key, bool isNew) {
    if (isNew)
        ++flowed_;
    else
        sendKeyDel(adapter, attribute, key);
}

void FlowConnection::sendMember(
    Adapter& adapter, StreamAttribute const& attribute, std::string_view key, Adapter* member, bool isNew) {
    if (!member) return sendNothing(adapter, attribute, key, isNew);
    bool const instances = attribute.kind == StreamKind::instances;
    view_->keyIsNamed(adapter, attribute, key, true);
    if (!isAnnounced(*member)) {
        Via const here{&adapter, &attribute, key};
        announce(*member, instances ? here : ownerOf(member->entity(), here));
        if (instances) return;
    } else if (instances && isNew && isInstantiatedBy(*member, adapter)) {
        ++flowed_;
        return;
    }
    std::size_t const size = placeSize(adapter, attribute) + key.size() + compactSize(member->id());
    Out& out = nboAttrLogOut().begin(MessageKind::keySet, size);
    putPlace(out, adapter, attribute, key);
    out << Compact{member->id()};
    Impl::outSmCommitMessage(nboAttrLogOut());
    if (instances) instantiatedIs(*member, adapter);
}

void FlowConnection::sendKeyDel(Adapter& adapter, StreamAttribute const& attribute, std::string_view key) {
    writeKeyDel(nboAttrLogOut(), adapter, attribute, key);
}

void FlowConnection::writeValues(OutSm& sm, Adapter const& adapter, std::span<StreamAttribute const* const> values) {
    Out bytes, value;
    for (StreamAttribute const* const attribute : values) {
        value.clear();
        writeStored(value, *attribute, adapter.entity());
        bytes << Compact{attribute->id} << Compact{static_cast<U32>(value.size())};
        put(bytes, viewOf(value));
    }
    Out& out = sm.begin(MessageKind::values, compactSize(adapter.id()) + bytes.size());
    out << Compact{adapter.id()};
    put(out, viewOf(bytes));
    Impl::outSmCommitMessage(sm);
}

void FlowConnection::writeKeyDel(
    OutSm& sm, Adapter const& adapter, StreamAttribute const& attribute, std::string_view key) {
    putPlace(sm.begin(MessageKind::keyDel, placeSize(adapter, attribute) + key.size()), adapter, attribute, key);
    Impl::outSmCommitMessage(sm);
}

void FlowConnection::sendPlace(MessageKind kind, Adapter& adapter, StreamAttribute const& attribute) {
    Out& out = nboAttrLogOut().begin(kind, placeSize(adapter, attribute));
    putPlace(out, adapter, attribute, {});
    Impl::outSmCommitMessage(nboAttrLogOut());
}

void FlowConnection::sendKeysAgain(Adapter& adapter, StreamAttribute const& attribute) {
    sendPlace(MessageKind::keysAgain, adapter, attribute);
}

void FlowConnection::sendKeysEnd(Adapter& adapter, StreamAttribute const& attribute) {
    sendPlace(MessageKind::keysEnd, adapter, attribute);
}

void FlowConnection::forget(Adapter const& adapter, bool mayReturn) {
    bool const told = isAnnounced(adapter);
    unannounce(adapter);
    flows_.erase(adapter.slot());
    if (told) entityHasGone(adapter.id(), mayReturn);
}

void FlowConnection::unannounce(Adapter const& adapter) {
    announced_.del(adapter.slot());
    notBegun_.del(adapter.slot());
    instantiated_.del(adapter.slot());
}

// --- types, and knowledge as a whole ---

void FlowConnection::typeIsTold(U32 index, bool told) {
    if (index >= typesTold_.size()) typesTold_.resize(index + 1);
    typesTold_[index] = told;
}

void FlowConnection::tellType(U32 index) {
    if (index < typesTold_.size() && typesTold_[index]) return;
    VelType const type = view_->demuxer().types()[index];
    typeIsNeeded(type);
    String const name = type.name();
    String const module = type.moduleName();
    Out& out = nboAttrLogOut().begin(MessageKind::type, compactSize(index) + 16 + name.length() + module.length());
    out << Compact{index} << name << module << type.moduleFingerprint();
    Impl::outSmCommitMessage(nboAttrLogOut());
    typeIsTold(index, true);
}

void FlowConnection::tellTypes() {
    for (U32 index = 0; index < view_->demuxer().types().size(); ++index)
        if (view_->usesType(index)) tellType(index);
}

void FlowConnection::knowledgeIs(FlowConnection const& other) {
    announced_ = other.announced_;
    notBegun_ = other.notBegun_;
    instantiated_ = other.instantiated_;
    typesTold_ = other.typesTold_;
    waiting_ = other.waiting_;
    flows_.clear();
}

void FlowConnection::clear() {
    announced_.clear();
    notBegun_.clear();
    instantiated_.clear();
    std::vector<bool>().swap(typesTold_);
    std::deque<EntityId>().swap(waiting_);
    flows_.clear();
}

}  // namespace Vel::NboAttrLog
