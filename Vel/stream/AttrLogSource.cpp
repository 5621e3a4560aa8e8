#include "Vel/stream/AttrLogSource.h"

#include "Vel/stream/internal/AttrLogReader.h"
#include "Vel/stream/internal/AttrLogSourceImpl.h"

namespace Vel {

AttrLogSource::AttrLogSource(Ptr<Entity> root, Options const& options)
    : AttrLogSource(std::make_unique<Impl>(std::make_shared<StreamDemuxer>(), std::move(root), options)) {}
AttrLogSource::AttrLogSource(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
AttrLogSource::~AttrLogSource() = default;

Entity& AttrLogSource::root() const { return impl_->root(); }

std::unique_ptr<StreamPeer> AttrLogSource::newReader(bool mayWrite, String const& author) {
    return std::make_unique<AttrLogReader>(
        [impl = impl_.get()](String const&) { return impl; }, impl_->options().limits, mayWrite, nullptr, author);
}

void AttrLogSource::multicastIs(Multicast deliver) { impl_->demuxer().multicastIs(std::move(deliver)); }

std::size_t AttrLogSource::readers() const { return impl_->readers(); }
std::size_t AttrLogSource::liveReaders() const { return impl_->liveReaders(); }
std::size_t AttrLogSource::entities() const { return impl_->entities(); }
std::size_t AttrLogSource::backlog() const { return impl_->backlog(); }
U64 AttrLogSource::messages() const { return impl_->log().messages(); }
U64 AttrLogSource::coalesced() const { return impl_->demuxer().coalesced(); }

}  // namespace Vel
