#include "Vel/stream/AttrLogServer.h"

#include "Vel/stream/internal/AttrLogReader.h"
#include "Vel/stream/internal/AttrLogSourceImpl.h"

#include <algorithm>

namespace Vel {

AttrLogServer::AttrLogServer(Ptr<Entity> root, AttrLogSource::Options const& options)
    : root_(std::move(root)), options_(options), demuxer_(std::make_shared<StreamDemuxer>()) {}
AttrLogServer::~AttrLogServer() = default;

void AttrLogServer::extraIs(String const& path, Ptr<Entity> entity) {
    extraIs(path, [entity = std::move(entity)](Rights const&) { return entity; });
}

void AttrLogServer::extraIs(String const& path, Extra extra) { extras_[plainPath(path.view())] = std::move(extra); }

// What leads to the entity need not be readable.
Ptr<Entity> AttrLogServer::entityAt(Key const& key) const {
    auto const& [path, rights] = key;
    if (rights && !allows(rights->of(path), Access::read)) return nullptr;
    if (auto const extra = extras_.find(path); extra != extras_.end()) return extra->second(rights);
    return root_->entity(String(path));
}

// Keeps the source `wanted` even if it has no readers.
void AttrLogServer::checkPathsBut(Key const* wanted) {
    std::vector<std::unique_ptr<AttrLogSource>> gone;  // destroyed at the end, when the map is consistent
    for (auto at = sources_.begin(); at != sources_.end();) {
        auto& [key, source] = *at;
        AttrLogSource::Impl const& impl = source->impl();
        bool const isWanted = source->readers() != 0 || (wanted && key == *wanted);
        bool const isThere = isWanted && entityAt(key).get() == &source->root() && impl.canHave(source->root());
        if (impl.isBeingWritten() || isThere) {
            ++at;
        } else {
            gone.push_back(std::move(source));
            at = sources_.erase(at);
        }
    }
}

AttrLogSource* AttrLogServer::source(String const& path, Rights const& rights) {
    Key const key(plainPath(path.view()), rights);
    checkPathsBut(&key);
    if (auto const found = sources_.find(key); found != sources_.end())  // a source that is being written stays
        return found->second->impl().canHave(found->second->root()) ? found->second.get() : nullptr;
    Ptr<Entity> const entity = entityAt(key);
    if (!entity) return nullptr;
    std::unique_ptr<ViewRights> may;
    if (rights) may = std::make_unique<ViewRights>(rights, demuxer_->placesBelow(root_));
    auto impl = std::make_unique<AttrLogSource::Impl>(demuxer_, entity, options_, std::move(may));
    if (!impl->canHave(*entity)) return nullptr;
    return sources_.emplace(key, std::make_unique<AttrLogSource>(std::move(impl))).first->second.get();
}

std::size_t AttrLogServer::backlog() const {
    std::size_t most = 0;
    for (auto const& [path, source] : sources_) most = std::max(most, source->backlog());
    return most;
}

U64 AttrLogServer::coalesced() const { return demuxer_->coalesced(); }

std::unique_ptr<StreamPeer> AttrLogServer::newReader(
    bool mayWrite, std::function<String()> admission, String const& author, Rights rights) {
    return std::make_unique<AttrLogReader>(
        [this, rights = std::move(rights)](String const& path) {
            AttrLogSource* const found = source(path, rights);
            return found ? &found->impl() : nullptr;
        },
        options_.limits, mayWrite, std::move(admission), author);
}

}  // namespace Vel
