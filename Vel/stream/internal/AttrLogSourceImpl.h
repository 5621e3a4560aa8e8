#pragma once

#include "Vel/stream/AttrLogSource.h"
#include "Vel/stream/StreamWrite.h"
#include "Vel/stream/internal/AttrLog.h"
#include "Vel/stream/internal/StreamView.h"

#include <memory>
#include <vector>

namespace Vel {

class AttrLogReader;

// A source: a view, its readers, and the log that its live readers share. Sources may share a demuxer. Then an entity
// that several of them have is observed once, and a message that is the same for them is encoded once.
class VEL_API AttrLogSource::Impl final : public StreamView {
public:
    // `rights` says what the readers may do; null: what the options say.
    Impl(std::shared_ptr<StreamDemuxer> demuxer, Ptr<Entity> root, Options const& options,
        std::unique_ptr<ViewRights> rights = nullptr);
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
    void awaits(AttrLogReader& reader);  // the reader wants to be woken at the next change
    NboAttrLog::FlowConnection const& live() const { return live_; }
    // Whether readers who may change something may change something here.
    bool takesChanges() const;
    // Whether such a reader may send a message of this kind about the entity.
    bool allows(NboAttrLog::MessageKind kind, Entity const& entity) const;
    // Applies what a reader asks for, a message of this kind, and returns the answer. An id that is not in the view is
    // of an entity that has gone, and the reader has not heard of that yet; or the reader was never told of it.
    WriteAnswer write(NboAttrLog::MessageKind kind, NboAttrLog::In& body, bool allowed, String const& author);
    bool isBeingWritten() const { return writes_ != 0; }  // then the source must stay

private:
    class Live final : public NboAttrLog::FlowConnection {
    public:
        explicit Live(Impl& source) : FlowConnection(&source), source_(source) {}
        NboAttrLog::OutSm& nboAttrLogOut() override {
            source_.demuxer().logIsWritten();
            return source_.log_;
        }
        bool isOkToSerialize() const override { return true; }
        void typeIsNeeded(VelType type) override { source_.prepareReadersFor(type); }
        void entityHasGone(EntityId id, bool mayReturn) override;
        void changesAreWritten() override { source_.changesAreWritten(); }

    private:
        Impl& source_;
    };

    void clear() override;  // refuses all readers
    void rootIsHidden() override { refuseAll(isGone); }
    static constexpr char isGone[] = "what was served is gone";
    void refuseAll(char const* reason);
    void changesAreWritten();
    void prepareReadersFor(VelType type);
    void wakeAwaiting();
    void trimLog();

    Options options_;
    NboAttrLog::AttrLog log_;
    Live live_;
    std::vector<AttrLogReader*> readers_;
    std::vector<AttrLogReader*> awaiting_;
    std::vector<AttrLogReader*> waking_;  // readers that are being woken
    std::size_t liveReaders_ = 0;
    unsigned writes_ = 0;  // changes being applied; an observer may run the transport, which brings others
    U64 lastChunk_ = 0;
    U64 lastMessages_ = 0;  // of the log, when waiting readers were last up to date or woken
};

}  // namespace Vel
