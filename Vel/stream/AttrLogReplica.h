#pragma once

#include "Vel/describe/GenericIf.h"
#include "Vel/entity/Dir.h"
#include "Vel/stream/StreamPeer.h"
#include "Vel/stream/StreamWrite.h"

#include <functional>
#include <memory>

namespace Vel {

// A copy of the entities that a source serves. Messages change it by the mutators of its entities, so their observers
// are notified as of any other change.
//
// The copy outlives the connection; without one it is stale. When the next connection syncs, an entity is kept if the
// source still has it at the same place, and observers are notified of the differences only. Entities that the source
// no longer has are deleted when it has sent everything.
// Only the source should change the copy. Another change stays until the source changes the same attribute, or until
// the next connection.
// Threads: one at a time, the one that uses the entities.
class VEL_API AttrLogReplica final : public StreamPeer {
public:
    enum class State {
        empty,    // before the first connection; after it, not connected and without root()
        syncing,  // connected; the copy is not complete yet
        synced,   // connected; the copy is complete
        stale     // not connected; the copy stays as it was
    };
    struct Options {
        String path;                // of the entity to copy, at the source
        bool wantsToWrite = false;  // see write()
        StreamLimits limits{};
    };

    // The copy is `root` and what it leads to. If the source serves an entity of another type, the connection ends with
    // an error.
    AttrLogReplica(Ptr<Entity> root, Options options);
    // The copy is made in the directory, under the name. An entry with this name is used if it is of the right type,
    // and replaced if not.
    AttrLogReplica(Ptr<Dir> parent, String name, Options options);
    ~AttrLogReplica() override;

    void connected();  // says hello. Call it for each new connection, the next one after closed()
    void closed(String const& reason) override;

    State state() const;
    void onStateIs(std::function<void(State)> told);
    Ptr<Entity> root() const;      // null until the source has announced it, unless it was given
    bool mayWrite() const;         // whether the source accepts changes
    std::size_t entities() const;  // number that the source has announced and that have not gone
    std::size_t copySize() const;  // estimated bytes that the source makes the copy take

    // These ask the source for a change: of a value attribute, or of one key of a collection of values. The change
    // comes back like any other. `told` is called once, when the answer has come or the connection has ended. Changes
    // are made, and answered, in the order in which they were asked for. Up to 4096 may wait for their answers.
    //
    // All throw ReadOnlyException if the source accepts no changes. They throw RangeException if the source does not
    // send the entity, if it has no such attribute, or if too many changes wait. They throw TypeException for a value
    // or a key of another type. Then `told` is not called.
    void write(Entity const& entity, AttributeId attribute, ValueRef value, WriteTold told = {});
    // Changes the value only if it is `expected`, byte for byte as it is sent. If not, the answer has the value that is
    // there.
    void writeIf(Entity const& entity, AttributeId attribute, ValueRef expected, ValueRef value, WriteTold told = {});
    void writeKey(Entity const& entity, AttributeId attribute, ValueRef key, ValueRef value, WriteTold told = {});
    // The same if the key has the value `expected`, or if that is null and the collection does not have the key.
    void writeKeyIf(Entity const& entity, AttributeId attribute, ValueRef key, ValueRef const* expected, ValueRef value,
        WriteTold told = {});
    void deleteKey(Entity const& entity, AttributeId attribute, ValueRef key, WriteTold told = {});
    std::size_t unansweredWrites() const;  // number of changes that wait for their answers

    class Impl;

private:
    void handleMessage(NboAttrLog::MessageKind kind, NboAttrLog::In& body) override;
    struct Request;
    void send(Request const& request, WriteTold told);

    String path_;
    bool wantsToWrite_;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Vel
