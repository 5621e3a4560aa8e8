#pragma once

#include "Vel/base/TableHash.h"
#include "Vel/stream/internal/AttrLogSourceImpl.h"
#include "Vel/stream/internal/StreamProtocol.h"
#include "Vel/stream/internal/StreamRefusal.h"

#include <deque>
#include <functional>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace Vel {

// The source's side of one connection. It waits for a hello, then sends the state, then sends the log.
class VEL_API AttrLogReader final : public StreamPeer, public NboAttrLog::FlowConnection {
public:
    using Finder = std::function<AttrLogSource::Impl*(String const& path)>;
    using Admission = std::function<String()>;

    // `finder` returns the source for the path that the reader asks for, or null. With `mayWrite`, the reader may
    // change values if the source's options allow it. `admission` is called before a hello is answered; if it returns a
    // text, the reader is refused with that text.
    // `author` says who the reader is, for AttrLogSource::Options::history.
    AttrLogReader(Finder finder, StreamLimits const& limits, bool mayWrite, Admission admission = nullptr,
        String const& author = {});
    ~AttrLogReader() override;

    std::span<U8 const> output(std::size_t limit) override;
    void outputTaken(std::size_t count) override;
    bool wantsOutput() const override;
    std::size_t held() const override {
        return StreamPeer::held() + modulesHeld_ + answersHeld_ + descriptions_.capacity();
    }
    void closed(String const& reason) override;

    bool isLive() const { return isLive_; }
    NboAttrLog::AttrLog::Position position() const { return position_; }
    void toldToCatchUp();  // called when the reader has fallen too far behind; it is not live any more then
    U64 timesBehind() const { return timesBehind_; }
    void leaveSource(String const& reason);   // refuses the reader with this error
    void refuseLater(StreamRefusal refusal);  // refuses the reader at the next output()
    // A live reader is to be sent the type. Describes the modules that the reader does not have, before any more of the
    // log is sent, or refuses it.
    void typeIsNeededLater(VelType type);
    // Returns why the reader cannot be sent this type. The text is empty if it can.
    StreamRefusal refusalFor(VelType type) const;
    void entityHasGone(EntityId id, bool mayReturn) override { (mayReturn ? goneFirst_ : gone_).push_back(id); }
    void wakeUp() {  // called when the reader waits for a change, and there is one
        isAwaiting_ = false;
        wake();
    }

    // How many steps one output() takes at most while the reader catches up, so that other readers have their turn
    // after a millisecond or two. A step is a message, an entity that is done with, or a key that needs no message.
    static constexpr U64 mostSteps = 1024;

private:
    using StreamPeer::refuse;
    void refuse(StreamRefusal const& refusal) { refuse(refusal.text, refusal.fault); }
    NboAttrLog::OutSm& nboAttrLogOut() override { return out_; }
    bool isOkToSerialize() const override { return out_.size() < room_ && steps() < lastStep_; }
    U64 steps() const { return out_.messages() + flowed(); }
    void typeIsNeeded(VelType type) override;
    void handleMessage(NboAttrLog::MessageKind kind, NboAttrLog::In& body) override;
    void hello(NboAttrLog::In& body);
    void write(NboAttrLog::MessageKind kind, NboAttrLog::In& body);
    StreamRefusal refusalFor(std::span<VelType const> types) const;  // as for one
    String whyNoCall(NboAttrLog::In body) const;
    void answer(U32 number, WriteAnswer answer);
    void addAnswers();
    void outputCatchingUp(std::size_t limit);
    std::span<U8 const> outputOfLog(std::size_t limit);
    void catchUp();
    void sendGone(std::vector<EntityId>& gone);
    void finishLogMessage();
    void ownOutstanding();
    void describe(VelType type);
    void sendDescriptions();
    void knowsModule(std::string name, U64 fingerprint);
    void leave();
    // A change that was asked for is answered when the reader has been sent the log up to `after`, the change included.
    struct Answer {
        U32 number;
        WriteAnswer answer;
        NboAttrLog::AttrLog::Position after;  // meant only while the reader is live
        std::size_t held() const {
            return sizeof *this + answer.text.size() + (answer.value ? answer.value->attrLogSize() : 0);
        }
    };
    static void writeAnswer(NboAttrLog::OutSm& sm, Answer const& answer);
    template <class F> void eachUnread(F f) const;  // calls f(message) for each whole message not sent
    void knowNothingUnread();
    void flagMessage(std::span<U8 const> message);
    void flagValues(NboAttrLog::Adapter& adapter, NboAttrLog::In& in);

    Finder finder_;
    Admission admission_;
    AttrLogSource::Impl* source_ = nullptr;
    std::unordered_map<std::string, U64, TableHasher> modules_;  // of the reader: fingerprints by name
    std::vector<EntityId> gone_;                                 // sent after all else
    std::vector<EntityId> goneFirst_;              // sent before all else, since these entities may come back
    std::shared_ptr<NboAttrLog::Out const> kept_;  // the chunk with the last output
    NboAttrLog::AttrLog::Position position_;
    StreamRefusal refusal_;
    NboAttrLog::BufferSm descriptions_;  // sent before all else
    bool wantsDescriptions_ = false;
    std::deque<Answer> answers_;   // of changes that were made or rejected, not sent yet
    std::size_t answersHeld_ = 0;  // bytes of memory of these
    std::size_t modulesHeld_ = 0;  // bytes of modules_
    std::size_t room_ = 0;
    U64 lastStep_ = 0;             // the output() that is running stops there
    std::size_t outstanding_ = 0;  // bytes of the log that the last output() gave and that were not taken
    U64 timesBehind_ = 0;          // how often it was told to catch up
    bool isLive_ = false;
    bool isAwaiting_ = false;
    bool isLogsTurn_ = false;  // the last output() gave bytes of out_, so the log is next
    bool mayWrite_;
    String author_;
};

}  // namespace Vel
