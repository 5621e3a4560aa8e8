#pragma once

#include "Vel/entity/Entity.h"
#include "Vel/stream/StreamPeer.h"

#include <functional>
#include <memory>

namespace Vel {

// Serves an entity, and all that it leads to, to any number of readers.
//
// A change is encoded once, as one message of a log that all readers share which have caught up. A reader that has not,
// or falls behind by more than the log holds, costs a flag for each attribute or key that has changed since, however
// often: what is sent then is the value at that time.
// Threads: one at a time, the one that uses the entities.
class VEL_API AttrLogSource {
public:
    struct Options {
        std::size_t logSize = 1u << 20;  // bytes that a reader may fall behind
        bool mayWrite = false;           // readers that want to may change values
        StreamLimits limits{};
        // Bytes of one piece of the log; 0: as fits its size. Readers that are behind are looked for when a piece is
        // full, so that tests can have them fall behind by one message.
        std::size_t chunkSize = 0;
    };
    // Somebody who delivers a change of a value to many readers at once, and says whether that was all of them.
    using Multicast = std::function<bool(Entity& entity, AttributeId id)>;

    explicit AttrLogSource(Ptr<Entity> root) : AttrLogSource(std::move(root), Options()) {}
    AttrLogSource(Ptr<Entity> root, Options const& options);
    AttrLogSource(AttrLogSource const&) = delete;
    AttrLogSource& operator=(AttrLogSource const&) = delete;
    ~AttrLogSource();  // readers that are left are closing then

    Entity& root() const;
    // Another reader's side of a connection. It serves the root, whatever path the reader asks for, and lets it change
    // values if the options do and `mayWrite` does.
    std::unique_ptr<StreamPeer> newReader(bool mayWrite = true);
    // REQUIRES: no reader has been there yet.
    void multicastIs(Multicast deliver);

    std::size_t readers() const;      // that have said hello
    std::size_t liveReaders() const;  // of these, those that have caught up
    std::size_t entities() const;     // that readers have been told of, and what these refer to
    std::size_t backlog() const;      // bytes of the log that the slowest live reader has still to be sent
    U64 messages() const;             // ever encoded for live readers, each for all of them
    U64 coalesced() const;            // changes that needed no flag of their own

    // --- for this library and its tests ---

    class Impl;
    explicit AttrLogSource(std::unique_ptr<Impl> impl);
    Impl& impl() const { return *impl_; }

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace Vel
