#pragma once

#include "Vel/entity/Entity.h"
#include "Vel/stream/StreamPeer.h"

#include <functional>
#include <memory>

namespace Vel {

class WriteHistory;

// Serves an entity, and all entities that it leads to, to any number of readers.
//
// Readers that have caught up share one log, in which a change is one message, encoded once. A reader that has not
// caught up, or that falls behind by more than the log holds, has flags instead: one for each attribute or key that has
// changed, however often. The value is read when it is sent.
// Threads: one at a time, the one that uses the entities.
class VEL_API AttrLogSource {
public:
    struct Options {
        std::size_t logSize = 1u << 20;  // bytes that a reader may fall behind
        bool mayWrite = false;           // readers that ask for it may change values
        StreamLimits limits{};
        // Bytes of a chunk of the log. 0 means a sixteenth of logSize, but at least 256 bytes and at most 64 KiB. When
        // a chunk is full, the source looks for readers that have fallen behind. Tests use small chunks, so that a
        // reader falls behind by one message.
        std::size_t chunkSize = 0;
        // Keeps who has asked for which changes; null: nobody does. Sources of one server share it.
        std::shared_ptr<WriteHistory> history{};
    };
    // Delivers a change of a value to many readers at once. Returns whether all of them have got it, so that no message
    // is needed.
    using Multicast = std::function<bool(Entity& entity, AttributeId id)>;

    explicit AttrLogSource(Ptr<Entity> root) : AttrLogSource(std::move(root), Options()) {}
    AttrLogSource(Ptr<Entity> root, Options const& options);
    AttrLogSource(AttrLogSource const&) = delete;
    AttrLogSource& operator=(AttrLogSource const&) = delete;
    ~AttrLogSource();  // refuses the remaining readers

    Entity& root() const;
    // Returns the source's side of a new connection. The reader gets the root, whatever path it asks for. It may change
    // values if it asks for that, and if both the options and `mayWrite` allow it.
    // `author` is for Options::history: who is on the other side.
    std::unique_ptr<StreamPeer> newReader(bool mayWrite = true, String const& author = {});
    // REQUIRES: no reader has said hello yet.
    void multicastIs(Multicast deliver);

    std::size_t readers() const;      // number of readers that have said hello
    std::size_t liveReaders() const;  // number of these that have caught up
    std::size_t entities() const;     // number that were announced, or that an announced one refers to
    std::size_t backlog() const;      // bytes of the log that the slowest live reader has not been sent
    U64 messages() const;             // number written to the log so far, each for all live readers
    U64 coalesced() const;            // number of changes whose flag was set already

    // --- for this library and its tests ---

    class Impl;
    explicit AttrLogSource(std::unique_ptr<Impl> impl);
    Impl& impl() const { return *impl_; }

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace Vel
