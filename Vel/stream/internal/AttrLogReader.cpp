#include "Vel/stream/internal/AttrLogReader.h"

#include "Vel/base/Exception.h"
#include "Vel/text/PeerText.h"

#include <algorithm>

namespace Vel {

using NboAttrLog::Compact;
using NboAttrLog::compactSize;
using NboAttrLog::In;
using NboAttrLog::MessageKind;
using NboAttrLog::nextCompact;

AttrLogReader::AttrLogReader(Finder finder, StreamLimits const& limits, bool mayWrite, Admission admission)
    : StreamPeer(limits),
      FlowConnection(nullptr),
      finder_(std::move(finder)),
      admission_(std::move(admission)),
      mayWrite_(mayWrite) {}

AttrLogReader::~AttrLogReader() { leave(); }

void AttrLogReader::leave() {
    if (!source_) return;
    source_->detach(*this);
    source_ = nullptr;
    isLive_ = false;
    isAwaiting_ = false;
    FlowConnection::clear();
    std::vector<EntityId>().swap(gone_);
    std::vector<EntityId>().swap(goneFirst_);
}

void AttrLogReader::closed(String const& reason) {
    leave();
    StreamPeer::closed(reason);
}

void AttrLogReader::leaveSource(String const& reason) {
    finishLogMessage();
    refuse(reason);  // before leave(), while wantsOutput() says whether the transport knows already
    leave();
}

// --- what comes in ---

void AttrLogReader::handleMessage(MessageKind kind, In& body) {
    if (kind == MessageKind::hello && !source_) return hello(body);
    if (kind != MessageKind::write || !source_)
        throw StreamException(format("a reader sends no message of kind %u now", static_cast<unsigned>(kind)), 0);
    EntityId const id = nextCompact(body);
    AttributeId const attribute = nextCompact(body);
    In items({body.data(), body.left()});
    source_->write(id, attribute, items, mayWrite_);
}

void AttrLogReader::hello(In& body) {
    if (body.nextU32() != streamMagic) throw StreamException("not an attribute log", 0);
    U16 const version = body.nextU16();
    bool const wantsToWrite = body.nextbool();
    String const path = body.nextString();
    U32 const count = body.nextU32();
    if (count > limits().modules)
        return refuse(format("the client has %u modules, and the server takes at most %zu", count, limits().modules));
    for (U32 i = 0; i < count; ++i) {
        String const name = body.nextString();
        auto const [at, isNew] = modules_.try_emplace(name.stdString());
        at->second = body.nextU64();
        if (isNew) modulesHeld_ += sizeof *at + 4 * sizeof(void*) + name.size();
    }
    if (body.left() != 0) throw StreamException("a hello with bytes behind its end", body.offset());
    if (version != streamVersion)
        return refuse(
            format("the client speaks version %u of the protocol, and the server version %u", version, streamVersion));
    AttrLogSource::Impl* const source = finder_(path);
    if (!source) return refuse(refusalOf(StreamFault::nothingThere, peerText(path.view())));
    if (String const why = admission_ ? admission_() : String(); !why.empty()) return refuse(why);
    bool const wanted = wantsOutput();
    source_ = source;
    viewIs(*source);
    mayWrite_ = mayWrite_ && wantsToWrite && source->options().mayWrite;
    controlOut().begin(MessageKind::welcome, 3) << streamVersion << mayWrite_;
    controlOut().commit();
    source->attach(*this);
    if (!wanted) wake();
}

// --- versions ---

namespace {

// Calls f(part) for the type, its bases, and the types of the values and keys that are sent of it, each once, until f
// returns false. Returns whether f never did.
template <class F> bool eachModule(VelType type, std::vector<VelType>& seen, F const& f) {
    for (; type; type = type.base()) {
        if (std::find(seen.begin(), seen.end(), type) != seen.end()) return true;
        seen.push_back(type);
        if (!f(type)) return false;
        for (U32 i = 0; i < type.attributeCount(); ++i) {
            VelAttr const attribute = type.attribute(i);
            AttributeKind const kind = attribute.kind();
            if (kind != AttributeKind::field && kind != AttributeKind::entityAttribute &&
                kind != AttributeKind::collection)
                continue;
            for (VelType const part : {attribute.valueType(), attribute.keyType()})
                if (part && !part.isEntity() && !eachModule(part, seen, f)) return false;
        }
    }
    return true;
}

}  // namespace

StreamRefusal AttrLogReader::refusalFor(VelType type) const {
    StreamRefusal refusal;
    std::vector<VelType> seen;
    eachModule(type, seen, [&](VelType part) {
        String const module = part.moduleName();
        U64 const here = part.moduleFingerprint();
        auto const found = modules_.find(module.stdString());
        if (found == modules_.end())
            refusal = refusalOf(StreamFault::noSuchModule, format("%s, fingerprint %016lx", module.charPtr(), here));
        else if (found->second != here)
            refusal = refusalOf(StreamFault::otherVersion,
                format("%s has fingerprint %016lx at the server and %016lx", module.charPtr(), here, found->second));
        return refusal.text.empty();
    });
    return refusal;
}

void AttrLogReader::typeIsNeeded(VelType type) {
    if (StreamRefusal refusal = refusalFor(type); !refusal.text.empty()) throw refusal;
}

void AttrLogReader::refuseLater(StreamRefusal refusal) {
    if (refusal_.text.empty()) refusal_ = std::move(refusal);
}

// --- what goes out ---

bool AttrLogReader::wantsOutput() const {
    if (StreamPeer::wantsOutput()) return true;
    if (!source_ || isClosing()) return false;
    return !isLive_ || !refusal_.text.empty() || position_ != source_->log().head();
}

std::span<U8 const> AttrLogReader::output(std::size_t limit) {
    outstanding_ = 0;
    kept_ = nullptr;
    out_.compact(keptWhileBusy(limit));
    if (!refusal_.text.empty() && !isClosing()) {
        finishLogMessage();
        refuse(std::exchange(refusal_, StreamRefusal()));
    }
    if (isClosing()) leave();
    if (source_) source_->sweepIfDue();
    if (source_ && !isLive_) outputCatchingUp(limit);
    return isLive_ ? outputOfLog(limit) : StreamPeer::output(limit);
}

// Answers to pings are sent before state, so a reader that pings without pause gets both.
void AttrLogReader::outputCatchingUp(std::size_t limit) {
    takeControl();
    room_ = limit;
    lastStep_ = steps() + mostSteps;
    try {
        source_->demuxer().givingIds([this] { catchUp(); });
    } catch (StreamRefusal const& refusal) {
        refuse(refusal);
    }
    if (source_ && !isLive_ && !StreamPeer::wantsOutput()) wake();  // this turn gave no message, the next may
}

// Answers to pings and bytes of the log take turns, for the same reason.
std::span<U8 const> AttrLogReader::outputOfLog(std::size_t limit) {
    bool const isLogsTurn = std::exchange(isLogsTurn_, false) && position_ != source_->log().head();
    if (out_.size() == 0 && hasControl() && !isLogsTurn) {
        finishLogMessage();
        takeControl();
    }
    if (out_.size() != 0) {
        isLogsTurn_ = true;
        return outFront(limit);
    }
    out_.compact(keptWhileIdle);
    auto const bytes = source_->log().read(position_, limit);
    outstanding_ = bytes.size();
    if (outstanding_ != 0) {
        kept_ = source_->log().chunk(position_);
    } else if (!std::exchange(isAwaiting_, true)) {
        source_->awaits(*this);
    }
    return bytes;
}

void AttrLogReader::outputTaken(std::size_t count) {
    if (outstanding_ == 0) return StreamPeer::outputTaken(count);
    outstanding_ -= count;
    position_.offset += count;
}

// Sends flagged state while there is room. When nothing is left, the reader goes on with the log.
void AttrLogReader::catchUp() {
    while (isOkToSerialize()) {
        if (!isAnnounced(*source_->adapter(source_->root()))) announce(*source_->adapter(source_->root()), {});
        // Entities that have gone for ever are sent last, unless there are over 64 more of them than of existing ones.
        if (!goneFirst_.empty()) {
            sendGone(goneFirst_);
            continue;
        }
        if (gone_.size() > source_->entities() + 64) {
            sendGone(gone_);
            continue;
        }
        continueFlowOut();
        if (hasWaiting()) continue;
        // An entity of the view that cannot be reached at the moment may be reached again, so it is announced.
        U32 const slot = source_->members().firstNotIn(announced());
        if (slot != NboAttrLog::SlotSet::none) {
            announce(*source_->demuxer().adapterAt(slot), {});
        } else if (!gone_.empty()) {
            sendGone(gone_);
        } else {
            tellTypes();
            out_.begin(MessageKind::synced, 0);
            out_.commit();
            position_ = source_->log().head();
            isLive_ = true;
            source_->goLive(*this);
            return;
        }
    }
}

void AttrLogReader::sendGone(std::vector<EntityId>& gone) {
    out_.begin(MessageKind::gone, compactSize(gone.back())) << Compact{gone.back()};
    out_.commit();
    gone.pop_back();
    if (gone.empty()) std::vector<EntityId>().swap(gone);
}

// Copies the log bytes that output() has handed out to out_, so that sending can go on without the log.
void AttrLogReader::ownOutstanding() {
    if (outstanding_ == 0) return;
    out_.add(source_->log().read(position_, outstanding_));
    position_.offset += outstanding_;
    outstanding_ = 0;
}

// Copies the rest of a half-sent log message to out_. Called before anything else is sent.
void AttrLogReader::finishLogMessage() {
    if (!isLive_) return;
    ownOutstanding();
    std::size_t finished = 0;
    source_->log().scan(
        position_,
        [&](std::span<U8 const> rest) {
            out_.add(rest);
            finished = rest.size();
        },
        [](std::span<U8 const>) {});
    position_.offset += finished;
}

void AttrLogReader::toldToCatchUp() {
    ++timesBehind_;
    finishLogMessage();
    knowledgeIs(source_->live());
    isLive_ = false;
    knowNothingUnread();
    eachUnread([this](std::span<U8 const> message) { flagMessage(message); });
    source_->leaveLive(*this, true);
    if (std::exchange(isAwaiting_, false)) wake();
}

template <class F> void AttrLogReader::eachUnread(F f) const {
    source_->log().scan(
        position_, [](std::span<U8 const>) {}, f);
}

// The reader was given the knowledge of live readers. It has not read of entities that were announced in messages that
// it did not read, and still knows those that have gone in them. An entity may have been announced and have gone
// several times there: the first of these messages says whether the reader knows it from before.
void AttrLogReader::knowNothingUnread() {
    std::unordered_set<EntityId> seen;
    eachUnread([&](std::span<U8 const> message) {
        auto const kind = static_cast<MessageKind>(message[0]);
        if (kind != MessageKind::announce && kind != MessageKind::gone) return;
        In in(message.subspan(1));
        EntityId const id = nextCompact(in);
        bool const isFirst = seen.insert(id).second;
        if (kind == MessageKind::gone) {
            if (isFirst) entityHasGone(id, source_->demuxer().adapter(id) != nullptr);
        } else if (auto* const adapter = source_->adapter(id)) {
            unannounce(*adapter);
        }
    });
}

// Flags what a message changes. The reader has not read the message.
void AttrLogReader::flagMessage(std::span<U8 const> message) {
    In in(message.subspan(1));
    auto const kind = static_cast<MessageKind>(message[0]);
    U32 id = nextCompact(in);
    if (kind == MessageKind::type) return typeIsTold(id, false);
    if (kind == MessageKind::gone) return;
    if (kind == MessageKind::announce) {
        nextCompact(in);
        id = nextCompact(in);  // the entity at whose attribute it was announced, or 0
        if (id == 0) return;
    }
    auto* const adapter = source_->adapter(id);
    StreamAttribute const* const attribute = adapter ? adapter->table().find(nextCompact(in)) : nullptr;
    if (!attribute) return;
    if (!attribute->isCollection()) {
        if (kind != MessageKind::announce)
            source_->demuxer().changeCounted(!adapter->flowOutOnAttributeForConnection(*this, *attribute));
        return;
    }
    U8 const* const key = in.data();
    attribute->skipKey(in);
    std::string_view const view(reinterpret_cast<char const*>(key), static_cast<std::size_t>(in.data() - key));
    // In the copy, a member that moved into the collection is not there yet. That also counts if the collection is new
    // and will be sent as a whole.
    if (kind == MessageKind::keySet && attribute->kind == StreamKind::instances)
        if (auto* const member = source_->adapter(nextCompact(in))) notInstantiated(*member);
    source_->demuxer().changeCounted(
        !adapter->flowOutOnAttributeForConnection(*this, *attribute, view, kind != MessageKind::keyDel, nullptr));
}

}  // namespace Vel
