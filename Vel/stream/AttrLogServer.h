#pragma once

#include "Vel/stream/AttrLogSource.h"
#include "Vel/stream/StreamRights.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>

namespace Vel {

class StreamDemuxer;

// Serves the entities that can be reached by a path from `root`. Each reader names a path in its hello, and gets the
// entity there and all that it leads to. An entity that is served under several paths is observed once, and a change of
// one of its values is encoded once.
//
// The server is not notified when another entity takes the place of a served one, or when a served one is removed;
// readers would follow the old entity for ever. So the owner of the transport has to call checkPaths() regularly, for
// example once a second. It refuses the readers of an entity that is no longer at its path. They find the new entity
// when they connect again.
class VEL_API AttrLogServer {
public:
    explicit AttrLogServer(Ptr<Entity> root, AttrLogSource::Options const& options = AttrLogSource::Options());
    ~AttrLogServer();

    // Returns the server's side of a new connection, which must not outlive the server. `mayWrite` is as for a source.
    // `admission` is called before a hello is answered; if it returns a text, the reader is refused with that text.
    // `author` is as for a source. `rights` says what the reader may do, whatever the options say of writing; null:
    // what the options say. For a reader that may not read what is at its path, nothing is there. Readers with the same
    // object `rights` and the same path share a source.
    std::unique_ptr<StreamPeer> newReader(bool mayWrite = true, std::function<String()> admission = nullptr,
        String const& author = {}, std::shared_ptr<StreamRights const> rights = nullptr);
    // Serves this entity, too, at a path that leads to nothing else. Readers of other paths do not see it.
    void extraIs(String const& path, Ptr<Entity> entity);
    // Serves what the function returns for the rights of a reader, each time the same for the same rights.
    using Extra = std::function<Ptr<Entity>(std::shared_ptr<StreamRights const> const& rights)>;
    void extraIs(String const& path, Extra extra);
    // Returns the source that the readers of the path with these rights share, or null if no entity is there for them.
    // Checks all paths first, as each hello does. The source lasts until a check finds that another entity or none is
    // at the path, or that the source has no readers.
    AttrLogSource* source(String const& path, std::shared_ptr<StreamRights const> const& rights = nullptr);
    // Destroys each source whose entity is no longer at its path; its readers are refused. Also destroys sources
    // without readers. While a reader is writing to a source, the source stays until a later check. Looks up at most
    // one path for each source.
    void checkPaths() { checkPathsBut(nullptr); }
    std::size_t sources() const { return sources_.size(); }
    std::size_t backlog() const;  // bytes; the largest backlog of a source
    U64 coalesced() const;        // by all sources that the server has had

private:
    using Rights = std::shared_ptr<StreamRights const>;
    using Key = std::pair<std::string, Rights>;  // a path with one separator between names

    Ptr<Entity> entityAt(Key const& key) const;
    void checkPathsBut(Key const* wanted);

    Ptr<Entity> root_;
    std::map<std::string, Extra> extras_;  // by path, as in sources_
    AttrLogSource::Options options_;
    std::shared_ptr<StreamDemuxer> demuxer_;
    std::map<Key, std::unique_ptr<AttrLogSource>> sources_;
};

}  // namespace Vel
