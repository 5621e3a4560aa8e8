#include "Vel/stream/internal/AttrLogSourceImpl.h"

#include "Vel/stream/internal/AttrLogReader.h"

#include <algorithm>

namespace Vel {

using NboAttrLog::FlowConnection;
using NboAttrLog::In;
using NboAttrLog::MessageKind;
using NboAttrLog::OutSm;

namespace {

// When a chunk is full, trimLog() looks for readers that are behind.
std::size_t chunkSizeOf(AttrLogSource::Options const& options) {
    return options.chunkSize != 0 ? options.chunkSize : std::clamp<std::size_t>(options.logSize / 16, 256, 64u << 10);
}

}  // namespace

AttrLogSource::Impl::Impl(std::shared_ptr<StreamDemuxer> demuxer, Ptr<Entity> root, Options const& options,
    std::unique_ptr<ViewRights> rights)
    : StreamView(std::move(demuxer), std::move(root), std::move(rights)),
      options_(options),
      log_(chunkSizeOf(options)),
      live_(*this) {
    this->demuxer().sharedSizeIs(chunkSizeOf(options));
    if (options.history) this->demuxer().historyIs(options.history);
}

AttrLogSource::Impl::~Impl() { refuseAll(isGone); }

void AttrLogSource::Impl::refuseAll(char const* reason) {
    for (AttrLogReader* const reader : std::vector(readers_)) reader->leaveSource(reason);
}

// --- readers ---

void AttrLogSource::Impl::attach(AttrLogReader& reader) {
    readers_.push_back(&reader);
    demuxer().catchingUpIs(reader, true);
    demuxer().givingIds([this] { adapterIs(root()); });
}

void AttrLogSource::Impl::detach(AttrLogReader& reader) {
    if (reader.isLive()) leaveLive(reader, false);
    demuxer().catchingUpIs(reader, false);
    std::erase(readers_, &reader);
    std::erase(awaiting_, &reader);
}

void AttrLogSource::Impl::clear() {
    refuseAll("entity ids have run out, and begin anew with the next connection");
    StreamView::clear();
}

// Called when the reader is up to date. If it is the first live one, what it was told becomes what live_ knows.
void AttrLogSource::Impl::goLive(AttrLogReader& reader) {
    if (liveReaders_++ == 0) {
        live_.knowledgeIs(reader);
        demuxer().liveIs(live_, log_, true);
        lastChunk_ = log_.head().chunk;
    }
    demuxer().catchingUpIs(reader, false);
    static_cast<FlowConnection&>(reader).clear();
}

void AttrLogSource::Impl::leaveLive(AttrLogReader& reader, bool catchesUp) {
    std::erase(awaiting_, &reader);
    if (catchesUp) demuxer().catchingUpIs(reader, true);
    if (--liveReaders_ != 0) return;
    demuxer().liveIs(live_, log_, false);
    live_.clear();
    log_.drop(log_.head());
}

void AttrLogSource::Impl::awaits(AttrLogReader& reader) {
    awaiting_.push_back(&reader);
    lastMessages_ = log_.messages();  // the reader has all of these
    demuxer().lookAfterLogs();
}

void AttrLogSource::Impl::prepareReadersFor(VelType type) {
    for (AttrLogReader* const reader : readers_) {
        if (reader->isLive()) reader->typeIsNeededLater(type);
    }
}

void AttrLogSource::Impl::Live::entityHasGone(EntityId id, bool) {
    OutSm& log = nboAttrLogOut();
    log.begin(MessageKind::gone, NboAttrLog::compactSize(id)) << NboAttrLog::Compact{id};
    log.commit();
}

void AttrLogSource::Impl::changesAreWritten() {
    if (log_.messages() == lastMessages_ && !live_.hasWaiting()) return;
    bool const isWritten = demuxer().givingIds([this] {
        while (liveReaders_ != 0 && live_.hasWaiting()) {
            live_.continueFlowOut();
            trimLog();
        }
    });
    if (!isWritten) return;
    lastMessages_ = log_.messages();
    if (log_.head().chunk != lastChunk_) trimLog();
    if (!awaiting_.empty()) wakeAwaiting();
}

void AttrLogSource::Impl::wakeAwaiting() {
    waking_.clear();
    waking_.swap(awaiting_);  // both keep their memory
    for (AttrLogReader* const reader : waking_) reader->wakeUp();
}

std::size_t AttrLogSource::Impl::backlog() const {
    std::size_t most = 0;
    for (AttrLogReader const* const reader : readers_)
        if (reader->isLive()) most = std::max(most, log().sizeFrom(reader->position()));
    return most;
}

bool AttrLogSource::Impl::takesChanges() const {
    if (!rights()) return options_.mayWrite;
    Access const most = rights()->rights().most();
    return Vel::allows(most, Access::write) || Vel::allows(most, Access::call);
}

bool AttrLogSource::Impl::allows(MessageKind kind, Entity const& entity) const {
    return !rights() || Vel::allows(rights()->of(entity), kind == MessageKind::call ? Access::call : Access::write);
}

WriteAnswer AttrLogSource::Impl::write(MessageKind kind, In& body, bool allowed, String const& author) {
    U8 const ops = kind == MessageKind::write ? body.nextU8() : 0;
    Adapter* const adapter = this->adapter(NboAttrLog::nextCompact(body));
    if (!adapter) return {WriteResult::gone, "the entity has gone"};
    // The entity's path may have names that the reader may not know, so it is not told to one with rights.
    if (!allows(kind, adapter->entity()) || (rights() && !allowed))
        return {WriteResult::readOnly,
            format("%s takes no such change from this reader", adapter->entity().fwkType().name())};
    struct Write {
        Write(StreamDemuxer& demuxer, unsigned& writes, bool allowed, String const& author)
            : demuxer_(demuxer),
              writes_(writes),
              allowedBefore_(demuxer.remoteMayWrite()),
              authorBefore_(demuxer.remoteAuthor()) {
            ++writes_;
            demuxer_.remoteMayWriteIs(allowed);
            demuxer_.remoteAuthorIs(&author);
        }
        Write(Write const&) = delete;
        Write& operator=(Write const&) = delete;
        ~Write() {
            demuxer_.remoteMayWriteIs(allowedBefore_);
            demuxer_.remoteAuthorIs(authorBefore_);
            --writes_;
        }

    private:
        StreamDemuxer& demuxer_;
        unsigned& writes_;
        bool const allowedBefore_;
        String const* const authorBefore_;
    };
    Write const write(demuxer(), writes_, allowed, author);
    if (kind == MessageKind::writeValues) return adapter->writeValuesFromRemote(body);
    if (kind == MessageKind::call) return adapter->callFromRemote(body);
    return adapter->writeFromRemote(ops, body);
}

// Drops the chunks that all live readers have read. If the log is too long then, the slowest reader has to catch up,
// and so on.
void AttrLogSource::Impl::trimLog() {
    if (liveReaders_ == 0) return;
    lastChunk_ = log_.head().chunk;
    auto const slowest = [&] {
        AttrLogReader* found = nullptr;
        for (AttrLogReader* const reader : readers_)
            if (reader->isLive() && (!found || reader->position() < found->position())) found = reader;
        return found;
    };
    for (;;) {
        AttrLogReader* const reader = slowest();
        if (!reader) return;
        log_.drop(reader->position());
        if (log_.size() <= options_.logSize || reader->position().chunk == log_.head().chunk) return;
        reader->toldToCatchUp();
    }
}

}  // namespace Vel
