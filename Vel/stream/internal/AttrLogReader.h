#pragma once

#include "Vel/base/TableHash.h"
#include "Vel/stream/internal/AttrLogSourceImpl.h"
#include "Vel/stream/internal/StreamProtocol.h"
#include "Vel/stream/internal/StreamRefusal.h"

#include <functional>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace Vel {

// A source's side of one connection. It waits for a hello, then catches up, then reads the log.
class VEL_API AttrLogReader final : public StreamPeer, public NboAttrLog::FlowConnection {
public:
    using Finder = std::function<AttrLogSource::Impl*(String const& path)>;
    using Admission = std::function<String()>;

    // `finder` gives the source for the path that the reader asks for, or null. `mayWrite`: if the source lets anybody.
    // `admission` is asked before a hello is answered: a text refuses the reader.
    AttrLogReader(Finder finder, StreamLimits const& limits, bool mayWrite, Admission admission = nullptr);
    ~AttrLogReader() override;

    std::span<U8 const> output(std::size_t limit) override;
    void outputTaken(std::size_t count) override;
    bool wantsOutput() const override;
    std::size_t held() const override { return StreamPeer::held() + modulesHeld_; }
    void closed(String const& reason) override;

    bool isLive() const { return isLive_; }
    NboAttrLog::AttrLog::Position position() const { return position_; }
    void toldToCatchUp();  // it has fallen too far behind, and is not live any more
    U64 timesBehind() const { return timesBehind_; }
    void leaveSource(String const& reason);   // closing, with this error
    void refuseLater(StreamRefusal refusal);  // at the next output
    // Why it can't be told of this type; empty when it can.
    StreamRefusal refusalFor(VelType type) const;
    void entityHasGone(EntityId id, bool mayReturn) override { (mayReturn ? goneFirst_ : gone_).push_back(id); }
    void wakeUp() {  // it awaited a change, and there is one
        isAwaiting_ = false;
        wake();
    }

    // What one output() does at most while the reader catches up, in messages and in entities that are done with, so
    // that others have their turn after a millisecond or two.
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
    void outputCatchingUp(std::size_t limit);
    std::span<U8 const> outputOfLog(std::size_t limit);
    void catchUp();
    void sendGone(std::vector<EntityId>& gone);
    void finishLogMessage();
    void ownOutstanding();
    void leave();
    template <class F> void eachUnread(F f) const;  // f(message) for each whole one of the log
    void knowNothingUnread();
    void flagMessage(std::span<U8 const> message);

    Finder finder_;
    Admission admission_;
    AttrLogSource::Impl* source_ = nullptr;
    std::unordered_map<std::string, U64, TableHasher> modules_;  // the reader's, with fingerprints
    std::vector<EntityId> gone_;                                 // to be told when all else is sent
    std::vector<EntityId> goneFirst_;                            // to be told at once, since they may come back
    std::shared_ptr<NboAttrLog::Out const> kept_;                // the chunk that the last output stands in
    NboAttrLog::AttrLog::Position position_;
    StreamRefusal refusal_;
    std::size_t modulesHeld_ = 0;  // bytes of modules_
    std::size_t room_ = 0;
    U64 lastStep_ = 0;             // before which the output() that is under way stops
    std::size_t outstanding_ = 0;  // bytes of the log that the last output() gave and that were not taken
    U64 timesBehind_ = 0;          // so often it was told to catch up
    bool isLive_ = false;
    bool isAwaiting_ = false;
    bool isLogsTurn_ = false;  // the last output() was its own
    bool mayWrite_;
};

}  // namespace Vel
