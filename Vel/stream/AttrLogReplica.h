#pragma once

#include "Vel/describe/GenericIf.h"
#include "Vel/entity/Dir.h"
#include "Vel/stream/StreamPeer.h"
#include "Vel/stream/StreamPolicy.h"
#include "Vel/stream/StreamWrite.h"

#include <functional>
#include <initializer_list>
#include <memory>
#include <span>
#include <vector>

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
        String path{};              // of the entity to copy, at the source
        bool wantsToWrite = false;  // see write()
        StreamLimits limits{};
        StreamPolicy policy{};
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
    // What this connection does not copy as it is at the source, each once, as a text for people:
    //     Agent::Port.speed: U32 at the server, U64 here: not copied
    // Always empty for the policy `exact`. At most 1024 are noted.
    std::vector<String> const& differences() const;

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
    // Changes several value attributes of an entity, all of them or none: if a mutator throws, or if an attribute does
    // not have the value that is expected of it, all keep their values. Readers have all of the changes or none.
    void writeTogether(Entity const& entity, std::span<ValueWrite const> values, WriteTold told = {});
    void writeTogether(Entity const& entity, std::initializer_list<ValueWrite> values, WriteTold told = {}) {
        writeTogether(entity, std::span(values.begin(), values.size()), std::move(told));
    }
    // Calls a method of the entity at the source, with these arguments. The answer has the result. What the method
    // changes in the entity comes as by writeTogether(). The parameters and the result must be values. Throws
    // TypeException also for another number of arguments than the method has parameters.
    void call(Entity const& entity, AttributeId method, std::span<ValueRef const> arguments, WriteTold told = {});
    void call(
        Entity const& entity, AttributeId method, std::initializer_list<ValueRef> arguments, WriteTold told = {}) {
        call(entity, method, std::span(arguments.begin(), arguments.size()), std::move(told));
    }
    std::size_t unansweredWrites() const;  // number of changes that wait for their answers

    class Impl;

private:
    void handleMessage(NboAttrLog::MessageKind kind, NboAttrLog::In& body) override;
    struct Request;
    void send(Request const& request, WriteTold told);
    EntityId targetOf(Entity const& entity) const;
    void needRoomForAnswer() const;

    String path_;
    bool wantsToWrite_;
    StreamPolicy policy_;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Vel
