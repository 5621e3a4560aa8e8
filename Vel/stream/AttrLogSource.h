#pragma once

#include "Vel/stream/StreamPeer.h"
#include "Vel/stream/internal/AttrLog.h"
#include "Vel/stream/internal/StreamView.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

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

// Serves what is below an entity: each reader gets what is at the path that it asks for, when it says hello. What is at
// several of these paths is observed once, and its changes of values are encoded once.
//
// Nothing tells when the entity at a path is replaced or taken out; its readers would go on with it for ever. So
// whoever runs the transport calls checkPaths() now and then, once a second for instance: readers of what is not at its
// path any more are refused, and find what is there now when they connect again.
class VEL_API AttrLogServer {
public:
    explicit AttrLogServer(Ptr<Entity> root, AttrLogSource::Options const& options = AttrLogSource::Options());
    ~AttrLogServer();

    // As a source's; must not outlive the server. `admission` is asked when a hello is about to be answered: a text
    // refuses the reader, who is told.
    std::unique_ptr<StreamPeer> newReader(bool mayWrite = true, std::function<String()> admission = nullptr);
    // What readers of the path share; null: there is no entity. Checks all paths first, as every reader's hello does.
    // Lasts until a check finds another entity, or none, at the path, or nobody who reads it.
    AttrLogSource* source(String const& path);
    // Destroys the sources that are not at their paths any more, so that their readers are closing, and those without
    // readers; one that a reader is writing to only at a later check. Looks up one path for each source.
    void checkPaths() { checkPathsBut(std::nullopt); }
    std::size_t sources() const { return sources_.size(); }
    std::size_t backlog() const;                             // the largest of its sources'
    U64 coalesced() const { return demuxer_->coalesced(); }  // by all sources that it has had

private:
    Ptr<Entity> entityAt(std::string const& path) const;
    void checkPathsBut(std::optional<std::string_view> wanted);

    Ptr<Entity> root_;
    AttrLogSource::Options options_;
    std::shared_ptr<StreamDemuxer> demuxer_ = std::make_shared<StreamDemuxer>();
    std::map<std::string, std::unique_ptr<AttrLogSource>> sources_;  // by path, without needless separators
};

}  // namespace Vel
