#pragma once

#include "Vel/stream/StreamPeer.h"
#include "Vel/stream/internal/AttrLog.h"
#include "Vel/stream/internal/StreamView.h"

#include <memory>
#include <vector>

namespace Vel {

class AttrLogReader;

// Serves an entity, and all that it leads to, to any number of readers.
//
// A change is encoded once, as one message of a log that all readers share which have caught up. A reader that has not,
// or falls behind by more than the log holds, costs a flag for each attribute or key that has changed since, however
// often: what is sent then is the value at that time. Sources may share a demuxer: then what they have in common is
// observed once, and where their messages are the same they are encoded once, too.
// Threads: one at a time, the one that uses the entities.
class VEL_API AttrLogSource : public StreamView {
public:
    struct Options {
        std::size_t logSize = 1u << 20;  // bytes that a reader may fall behind
        bool mayWrite = false;           // readers that want to may change values
        StreamLimits limits{};
        // Bytes of one piece of the log; 0: as fits its size. Readers that are behind are looked for when a piece is
        // full, so that tests can have them fall behind by one message.
        std::size_t chunkSize = 0;
    };

    explicit AttrLogSource(Ptr<Entity> root) : AttrLogSource(std::move(root), Options()) {}
    AttrLogSource(Ptr<Entity> root, Options const& options);
    AttrLogSource(std::shared_ptr<StreamDemuxer> demuxer, Ptr<Entity> root, Options const& options);
    ~AttrLogSource() override;  // readers that are left are closing then

    // Another reader's side of a connection. It serves the root, whatever path the reader asks for, and lets it change
    // values if the options do and `mayWrite` does.
    std::unique_ptr<StreamPeer> newReader(bool mayWrite = true);
    std::size_t readers() const { return readers_.size(); }  // that have said hello
    std::size_t liveReaders() const { return liveReaders_; }
    bool isBeingWritten() const { return writes_ != 0; }  // a reader's change is being applied: it must stay
    std::size_t backlog() const;  // bytes of the log that the slowest live reader has still to be sent
    Options const& options() const { return options_; }

    NboAttrLog::AttrLog const& log() const {
        demuxer().giveOut();
        return log_;
    }
    U64 coalesced() const { return demuxer().coalesced(); }  // changes that needed no flag of their own
    // See StreamDemuxer. REQUIRES: no reader has been there yet.
    void multicastIs(StreamDemuxer::Multicast deliver) { demuxer().multicastIs(std::move(deliver)); }
    void lastIdIs(EntityId id) { demuxer().lastIdIs(id); }

    // --- for readers ---

    void attach(AttrLogReader& reader);
    void detach(AttrLogReader& reader);
    void goLive(AttrLogReader& reader);
    void leaveLive(AttrLogReader& reader, bool catchesUp);
    void awaits(AttrLogReader& reader);  // wants to be woken at the next change
    NboAttrLog::FlowConnection const& live() const { return live_; }
    void clear() override;  // all readers are closing
    class Write;

private:
    class Live final : public NboAttrLog::FlowConnection {
    public:
        explicit Live(AttrLogSource& source) : FlowConnection(&source), source_(source) {}
        NboAttrLog::OutSm& nboAttrLogOut() override {
            source_.demuxer().logIsWritten();
            return source_.log_;
        }
        bool isOkToSerialize() const override { return true; }
        void typeIsNeeded(VelType type) override;
        void entityHasGone(EntityId id, bool mayReturn) override;
        void changesAreWritten() override;

    private:
        AttrLogSource& source_;
    };

    void wakeAwaiting();
    void trimLog();

    Options options_;
    NboAttrLog::AttrLog log_;
    Live live_;
    std::vector<AttrLogReader*> readers_;
    std::vector<AttrLogReader*> awaiting_;
    std::vector<AttrLogReader*> waking_;  // those of them that are being woken
    std::size_t liveReaders_ = 0;
    unsigned writes_ = 0;  // under way: an observer may run the transport, which looks after other readers
    U64 lastChunk_ = 0;
    U64 lastMessages_ = 0;  // of the log, when they were last looked after
};

// Lets a reader's change through, or not, while it is applied.
class AttrLogSource::Write {
public:
    Write(AttrLogSource& source, bool allowed) : source_(source), allowedBefore_(source.demuxer().remoteMayWrite()) {
        ++source_.writes_;
        source_.demuxer().remoteMayWriteIs(allowed);
    }
    Write(Write const&) = delete;
    Write& operator=(Write const&) = delete;
    ~Write() {
        source_.demuxer().remoteMayWriteIs(allowedBefore_);
        --source_.writes_;
    }

private:
    AttrLogSource& source_;
    bool const allowedBefore_;
};

}  // namespace Vel
