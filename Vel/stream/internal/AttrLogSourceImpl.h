#pragma once

#include "Vel/stream/AttrLogSource.h"
#include "Vel/stream/internal/AttrLog.h"
#include "Vel/stream/internal/StreamView.h"

#include <memory>
#include <vector>

namespace Vel {

class AttrLogReader;

// A source: a view, the log that its live readers share, and its readers. Sources may share a demuxer: then what they
// have in common is observed once, and where their messages are the same they are encoded once, too.
class VEL_API AttrLogSource::Impl final : public StreamView {
public:
    Impl(std::shared_ptr<StreamDemuxer> demuxer, Ptr<Entity> root, Options const& options);
    ~Impl() override;

    Options const& options() const { return options_; }
    std::size_t readers() const { return readers_.size(); }  // that have said hello
    std::size_t liveReaders() const { return liveReaders_; }
    std::size_t backlog() const;  // see AttrLogSource
    NboAttrLog::AttrLog const& log() const {
        demuxer().giveOut();
        return log_;
    }

    // --- for readers ---

    void attach(AttrLogReader& reader);
    void detach(AttrLogReader& reader);
    void goLive(AttrLogReader& reader);
    void leaveLive(AttrLogReader& reader, bool catchesUp);
    void awaits(AttrLogReader& reader);  // wants to be woken at the next change
    NboAttrLog::FlowConnection const& live() const { return live_; }
    // Applies a reader's change, or throws ReadOnlyException when it is not `allowed`. What is not in the view is left
    // as it is: it has gone and the reader has not heard of it yet, or the reader knows nothing of it.
    void write(EntityId id, AttributeId attribute, NboAttrLog::In& value, bool allowed);
    bool isBeingWritten() const { return writes_ != 0; }  // the source must stay until the change is applied

private:
    class Live final : public NboAttrLog::FlowConnection {
    public:
        explicit Live(Impl& source) : FlowConnection(&source), source_(source) {}
        NboAttrLog::OutSm& nboAttrLogOut() override {
            source_.demuxer().logIsWritten();
            return source_.log_;
        }
        bool isOkToSerialize() const override { return true; }
        void typeIsNeeded(VelType type) override { source_.refuseThoseWithout(type); }
        void entityHasGone(EntityId id, bool mayReturn) override;
        void changesAreWritten() override { source_.changesAreWritten(); }

    private:
        Impl& source_;
    };

    void clear() override;  // all readers are closing
    void changesAreWritten();
    void refuseThoseWithout(VelType type);
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

}  // namespace Vel
