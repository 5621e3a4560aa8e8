#include "Vel/stream/AttrLogSource.h"

#include "Vel/stream/internal/AttrLogReader.h"

#include <algorithm>

namespace Vel {

using NboAttrLog::FlowConnection;
using NboAttrLog::MessageKind;
using NboAttrLog::OutSm;

namespace {

// Readers that are behind are looked for when a chunk is full.
std::size_t chunkSizeOf(AttrLogSource::Options const& options) {
    return options.chunkSize != 0 ? options.chunkSize : std::clamp<std::size_t>(options.logSize / 16, 256, 64u << 10);
}

}  // namespace

AttrLogSource::AttrLogSource(Ptr<Entity> root, Options const& options)
    : AttrLogSource(std::make_shared<StreamDemuxer>(), std::move(root), options) {}
AttrLogSource::AttrLogSource(std::shared_ptr<StreamDemuxer> demuxer, Ptr<Entity> root, Options const& options)
    : StreamView(std::move(demuxer), std::move(root)), options_(options), log_(chunkSizeOf(options)), live_(*this) {
    this->demuxer().sharedSizeIs(chunkSizeOf(options));
}

AttrLogSource::~AttrLogSource() {
    for (AttrLogReader* const reader : std::vector(readers_)) reader->leaveSource("what was served is gone");
}

std::unique_ptr<StreamPeer> AttrLogSource::newReader(bool mayWrite) {
    return std::make_unique<AttrLogReader>([this](String const&) { return this; }, options_.limits, mayWrite);
}

// --- readers ---

void AttrLogSource::attach(AttrLogReader& reader) {
    adapterIs(root());
    readers_.push_back(&reader);
    demuxer().catchingUpIs(reader, true);
    if (demuxer().idsAreOut()) demuxer().startOver();
}

void AttrLogSource::detach(AttrLogReader& reader) {
    if (reader.isLive()) leaveLive(reader, false);
    demuxer().catchingUpIs(reader, false);
    std::erase(readers_, &reader);
    std::erase(awaiting_, &reader);
}

void AttrLogSource::clear() {
    for (AttrLogReader* const reader : std::vector(readers_)) reader->leaveSource(FlowConnection::idsAreOut);
    StreamView::clear();
}

// The reader is up to date. If it is the first live one, what it was told becomes what live_ knows.
void AttrLogSource::goLive(AttrLogReader& reader) {
    if (liveReaders_++ == 0) {
        live_.knowledgeIs(reader);
        demuxer().liveIs(live_, log_, true);
        lastChunk_ = log_.head().chunk;
    }
    demuxer().catchingUpIs(reader, false);
    static_cast<FlowConnection&>(reader).clear();
}

void AttrLogSource::leaveLive(AttrLogReader& reader, bool catchesUp) {
    std::erase(awaiting_, &reader);
    if (catchesUp) demuxer().catchingUpIs(reader, true);
    if (--liveReaders_ != 0) return;
    demuxer().liveIs(live_, log_, false);
    live_.clear();
    log_.drop(log_.head());
}

void AttrLogSource::awaits(AttrLogReader& reader) {
    awaiting_.push_back(&reader);
    lastMessages_ = log_.messages();  // it has all of these
    demuxer().lookAfterLogs();
}

void AttrLogSource::Live::typeIsNeeded(VelType type) {
    for (AttrLogReader* const reader : source_.readers_) {
        String reason;
        if (reader->isLive() && !reader->accepts(type, reason)) reader->refuseLater(reason);
    }
}

void AttrLogSource::Live::entityHasGone(EntityId id, bool) {
    OutSm& log = nboAttrLogOut();
    log.begin(MessageKind::gone, NboAttrLog::compactSize(id)) << NboAttrLog::Compact{id};
    log.commit();
}

void AttrLogSource::Live::changesAreWritten() {
    AttrLogSource& source = source_;
    if (source.log_.messages() == source.lastMessages_ && !hasWaiting()) return;
    try {
        while (source.liveReaders_ != 0 && hasWaiting()) {
            continueFlowOut();
            source.trimLog();
        }
    } catch (FlowConnection::Refusal const&) {}  // no ids are left; of readers each is refused by itself
    if (source.demuxer().idsAreOut()) return source.demuxer().startOver();
    source.lastMessages_ = source.log_.messages();
    if (source.log_.head().chunk != source.lastChunk_) source.trimLog();
    if (!source.awaiting_.empty()) source.wakeAwaiting();
}

void AttrLogSource::wakeAwaiting() {
    waking_.clear();
    waking_.swap(awaiting_);  // both keep their room
    for (AttrLogReader* const reader : waking_) {
        reader->isAwaiting_ = false;
        reader->wakeUp();
    }
}

std::size_t AttrLogSource::backlog() const {
    std::size_t most = 0;
    for (AttrLogReader const* const reader : readers_)
        if (reader->isLive()) most = std::max(most, log().sizeFrom(reader->position()));
    return most;
}

// Drops what every reader has read. A reader that holds more back than may be has to catch up instead.
void AttrLogSource::trimLog() {
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
