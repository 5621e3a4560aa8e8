#pragma once

#include "Vel/stream/AttrLogSource.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace Vel {

class StreamDemuxer;

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
    std::size_t backlog() const;  // the largest of its sources'
    U64 coalesced() const;        // by all sources that it has had

private:
    Ptr<Entity> entityAt(std::string const& path) const;
    void checkPathsBut(std::optional<std::string_view> wanted);

    Ptr<Entity> root_;
    AttrLogSource::Options options_;
    std::shared_ptr<StreamDemuxer> demuxer_;
    std::map<std::string, std::unique_ptr<AttrLogSource>> sources_;  // by path, without needless separators
};

}  // namespace Vel
