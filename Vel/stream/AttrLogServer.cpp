#include "Vel/stream/AttrLogServer.h"

#include "Vel/stream/internal/AttrLogReader.h"
#include "Vel/stream/internal/AttrLogSourceImpl.h"

#include <algorithm>

namespace Vel {

AttrLogServer::AttrLogServer(Ptr<Entity> root, AttrLogSource::Options const& options)
    : root_(std::move(root)), options_(options), demuxer_(std::make_shared<StreamDemuxer>()) {}
AttrLogServer::~AttrLogServer() = default;

namespace {

// Returns the path with one separator between names, and none at its ends, so that all spellings of a path become one.
std::string plainPath(std::string_view path) {
    std::string plain;
    while (!path.empty()) {
        std::string_view const name = path.substr(0, path.find('/'));
        path.remove_prefix(std::min(path.size(), name.size() + 1));
        if (name.empty()) continue;
        if (!plain.empty()) plain += '/';
        plain += name;
    }
    return plain;
}

}  // namespace

Ptr<Entity> AttrLogServer::entityAt(std::string const& path) const { return root_->entity(String(path)); }

// Keeps the source for the path `wanted` even if it has no readers.
void AttrLogServer::checkPathsBut(std::optional<std::string_view> wanted) {
    std::vector<std::unique_ptr<AttrLogSource>> gone;  // destroyed at the end, when the map is consistent
    for (auto at = sources_.begin(); at != sources_.end();) {
        auto& [path, source] = *at;
        bool const isWanted = source->readers() != 0 || path == wanted;
        if (source->impl().isBeingWritten() || (isWanted && entityAt(path).get() == &source->root())) {
            ++at;
        } else {
            gone.push_back(std::move(source));
            at = sources_.erase(at);
        }
    }
}

AttrLogSource* AttrLogServer::source(String const& path) {
    std::string const plain = plainPath(path.view());
    checkPathsBut(plain);
    if (auto const found = sources_.find(plain); found != sources_.end()) return found->second.get();
    Ptr<Entity> const entity = entityAt(plain);
    if (!entity) return nullptr;
    auto made = std::make_unique<AttrLogSource>(std::make_unique<AttrLogSource::Impl>(demuxer_, entity, options_));
    return sources_.emplace(plain, std::move(made)).first->second.get();
}

std::size_t AttrLogServer::backlog() const {
    std::size_t most = 0;
    for (auto const& [path, source] : sources_) most = std::max(most, source->backlog());
    return most;
}

U64 AttrLogServer::coalesced() const { return demuxer_->coalesced(); }

std::unique_ptr<StreamPeer> AttrLogServer::newReader(bool mayWrite, std::function<String()> admission) {
    return std::make_unique<AttrLogReader>(
        [this](String const& path) {
            AttrLogSource* const found = source(path);
            return found ? &found->impl() : nullptr;
        },
        options_.limits, mayWrite, std::move(admission));
}

}  // namespace Vel
