#include "Vel/stream/internal/AttrLogReader.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/ModuleDescription.h"
#include "Vel/stream/internal/RemoteCall.h"
#include "Vel/stream/internal/ReplicaWrites.h"
#include "Vel/text/PeerText.h"

#include <algorithm>

namespace Vel {

using NboAttrLog::Compact;
using NboAttrLog::compactSize;
using NboAttrLog::In;
using NboAttrLog::MessageKind;
using NboAttrLog::nextCompact;

namespace {

constexpr std::size_t mostAnswered = 4096;  // bytes of answers, and of changes before them, in one output

}  // namespace

AttrLogReader::AttrLogReader(
    Finder finder, StreamLimits const& limits, bool mayWrite, Admission admission, String const& author)
    : StreamPeer(limits),
      FlowConnection(nullptr),
      finder_(std::move(finder)),
      admission_(std::move(admission)),
      mayWrite_(mayWrite),
      author_(peerText(author.view())) {}

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
    std::deque<Answer>().swap(answers_);
    answersHeld_ = 0;
    descriptions_.clear();
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
    bool const isChange = kind == MessageKind::write || kind == MessageKind::writeValues || kind == MessageKind::call;
    if (!isChange || !source_)
        throw StreamException(format("a reader sends no message of kind %u now", static_cast<unsigned>(kind)), 0);
    write(kind, body);
}

void AttrLogReader::write(MessageKind kind, In& body) {
    if (answers_.size() >= ReplicaWrites::most)
        throw StreamException("changes come faster than their answers are taken", 0);
    U32 const number = nextCompact(body);
    if (kind == MessageKind::call)
        if (String why = whyNoCall(body); !why.empty())
            return this->answer(number, {WriteResult::rejected, std::move(why)});
    WriteAnswer answer = source_->write(kind, body, mayWrite_, author_);
    if (source_) this->answer(number, std::move(answer));  // unless an observer has ended the connection
}

// Returns why the method is not called: the bytes of its arguments mean something else to the reader if it has another
// version of their types. The text is empty if it may be called, or if the source has to say why not.
String AttrLogReader::whyNoCall(In body) const {
    NboAttrLog::Adapter* const adapter = mayWrite_ ? source_->adapter(nextCompact(body)) : nullptr;
    if (!adapter || !source_->allows(MessageKind::call, adapter->entity())) return {};
    auto const method = RemoteCall::methodOf(adapter->entity().fwkType(), nextCompact(body));
    return method ? refusalFor(RemoteCall::typesOf(*method)).text : String();
}

void AttrLogReader::answer(U32 number, WriteAnswer answer) {
    bool const wanted = wantsOutput();
    answer.text = peerText(answer.text.view(), ReplicaWrites::longestText);
    answers_.push_back({number, std::move(answer), source_->log().head()});
    answersHeld_ += answers_.back().held();
    if (!wanted) wake();
}

void AttrLogReader::hello(In& body) {
    if (body.nextU32() != streamMagic) throw StreamException("not an attribute log", 0);
    if (U16 const version = body.nextU16(); version != streamVersion)
        return refuse(
            format("the client speaks version %u of the protocol, and the server version %u", version, streamVersion));
    U8 const flags = body.nextU8();
    if (flags > HelloFlag::all) throw StreamException("a hello with unknown wishes", body.offset());
    wantsDescriptions_ = flags & HelloFlag::descriptions;
    String const path = body.nextString();
    U32 const count = body.nextU32();
    if (count > limits().modules)
        return refuse(format("the client has %u modules, and the server takes at most %zu", count, limits().modules));
    for (U32 i = 0; i < count; ++i) {
        std::string name = body.nextString().stdString();
        knowsModule(std::move(name), body.nextU64());
    }
    if (body.left() != 0) throw StreamException("a hello with bytes behind its end", body.offset());
    AttrLogSource::Impl* const source = finder_(path);
    if (!source) return refuse(refusalOf(StreamFault::nothingThere, peerText(path.view())));
    if (source->root().fwkType().glue().foreign)
        return refuse("the server knows the type of this entity only from a description");
    if (String const why = admission_ ? admission_() : String(); !why.empty()) return refuse(why);
    bool const wanted = wantsOutput();
    source_ = source;
    viewIs(*source);
    mayWrite_ = mayWrite_ && (flags & HelloFlag::writes) && source->takesChanges();
    controlOut().begin(MessageKind::welcome, 3) << streamVersion << mayWrite_;
    controlOut().commit();
    source->attach(*this);
    if (!wanted) wake();
}

void AttrLogReader::knowsModule(std::string name, U64 fingerprint) {
    std::size_t const size = name.size();
    auto const [at, isNew] = modules_.try_emplace(std::move(name));
    at->second = fingerprint;
    if (isNew) modulesHeld_ += sizeof *at + 4 * sizeof(void*) + size;
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

StreamRefusal AttrLogReader::refusalFor(VelType type) const { return refusalFor(std::span(&type, 1)); }

StreamRefusal AttrLogReader::refusalFor(std::span<VelType const> types) const {
    StreamRefusal refusal;
    std::vector<VelType> seen;
    auto const compare = [&](VelType part) {
        String const module = part.moduleName();
        U64 const here = part.moduleFingerprint();
        auto const found = modules_.find(module.stdString());
        if (found == modules_.end())
            refusal = refusalOf(StreamFault::noSuchModule, format("%s, fingerprint %016lx", module.charPtr(), here));
        else if (found->second != here)
            refusal = refusalOf(StreamFault::otherVersion,
                format("%s has fingerprint %016lx at the server and %016lx", module.charPtr(), here, found->second));
        return refusal.text.empty();
    };
    std::ranges::all_of(types, [&](VelType type) { return eachModule(type, seen, compare); });
    return refusal;
}

namespace {

// Calls f(type) for each type of entities to which a streamed attribute of the type or of its bases refers.
template <class F> void eachReferred(VelType type, F f) {
    for (; type; type = type.base())
        for (U32 i = 0; i < type.attributeCount(); ++i) {
            VelAttr const attribute = type.attribute(i);
            AttributeKind const kind = attribute.kind();
            if (kind != AttributeKind::entityAttribute && kind != AttributeKind::collection) continue;
            if (VelType const part = attribute.valueType(); part && part.isEntity()) f(part);
        }
}

}  // namespace

// Describes the modules of the type that the reader does not have as they are here, each once. Also those of the types
// to which it refers, so that the reader can tell a reference from a value.
void AttrLogReader::describe(VelType type) {
    auto const tell = [this](VelType part) {
        String const module = part.moduleName();
        U64 const fingerprint = part.moduleFingerprint();
        auto const found = modules_.find(module.stdString());
        if (found != modules_.end() && found->second == fingerprint) return true;
        String const text = ModuleDescription::spellingOf(part.module());
        descriptions_.begin(MessageKind::description, 16 + module.size() + text.size())
            << module << fingerprint << text;
        descriptions_.commit();
        knowsModule(module.stdString(), fingerprint);
        return true;
    };
    std::vector<VelType> seen;
    eachModule(type, seen, tell);
    eachReferred(type, tell);
}

void AttrLogReader::typeIsNeededLater(VelType type) {
    if (wantsDescriptions_) return describe(type);
    if (StreamRefusal refusal = refusalFor(type); !refusal.text.empty()) refuseLater(std::move(refusal));
}

void AttrLogReader::typeIsNeeded(VelType type) {
    if (wantsDescriptions_) {
        describe(type);
        out_.add(descriptions_.bytes());
        return descriptions_.clear();
    }
    if (StreamRefusal refusal = refusalFor(type); !refusal.text.empty()) throw refusal;
}

void AttrLogReader::refuseLater(StreamRefusal refusal) {
    if (refusal_.text.empty()) refusal_ = std::move(refusal);
}

// --- what goes out ---

bool AttrLogReader::wantsOutput() const {
    if (StreamPeer::wantsOutput()) return true;
    if (!source_ || isClosing()) return false;
    return !isLive_ || !refusal_.text.empty() || !answers_.empty() || position_ != source_->log().head();
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
    if (descriptions_.size() != 0) sendDescriptions();
    if (source_) source_->sweepIfDue();
    if (source_ && !isLive_) outputCatchingUp(limit);
    return isLive_ ? outputOfLog(limit) : StreamPeer::output(limit);
}

void AttrLogReader::sendDescriptions() {
    finishLogMessage();
    out_.add(descriptions_.bytes());
    descriptions_.clear();
    descriptions_.compact(0);
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
    if (!answers_.empty() && !isLogsTurn) addAnswers();
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

// Adds answers to out_, and the changes before them. What has to be sent before may be too long for that: then the log
// comes first, and the answers in a later turn.
void AttrLogReader::addAnswers() {
    NboAttrLog::AttrLog const& log = source_->log();
    if (position_ > answers_.front().after) finishLogMessage();  // the log had its turn meanwhile
    while (!answers_.empty() && out_.size() < mostAnswered) {
        Answer const& next = answers_.front();
        if (position_ < next.after) {
            std::size_t left = log.sizeFrom(position_) - log.sizeFrom(next.after);
            if (left > mostAnswered) return;
            while (left != 0) {
                auto const bytes = log.read(position_, left);
                out_.add(bytes);
                position_.offset += bytes.size();
                left -= bytes.size();
            }
        }
        writeAnswer(out_, next);
        answersHeld_ -= next.held();
        answers_.pop_front();
    }
}

void AttrLogReader::writeAnswer(NboAttrLog::OutSm& sm, Answer const& answer) {
    auto const& [result, text, value, attribute] = answer.answer;
    auto& out = sm.begin(MessageKind::answer, compactSize(answer.number) + 1);
    out << Compact{answer.number} << static_cast<U8>(result);
    if (attribute != 0) out << Compact{attribute};
    if (result == WriteResult::differs)
        out << value.has_value();
    else if (result != WriteResult::done)
        out << text;
    if (value) value->type().glue().write(out, value->data());
    sm.commit();
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
            for (Answer& answer : answers_) answer.after = position_;
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
    auto const rest = source_->log().restOfMessage(position_);
    out_.add(rest);
    position_.offset += rest.size();
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

template <class F> void AttrLogReader::eachUnread(F f) const { source_->log().scan(position_, f); }

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
    if (adapter && kind == MessageKind::values) return flagValues(*adapter, in);
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

void AttrLogReader::flagValues(NboAttrLog::Adapter& adapter, In& in) {
    while (in.left() != 0) {
        StreamAttribute const& attribute = *adapter.table().find(nextCompact(in));
        in.take(nextCompact(in));
        source_->demuxer().changeCounted(!adapter.flowOutOnAttributeForConnection(*this, attribute));
    }
    adapter.togetherForConnection(*this);
}

}  // namespace Vel
