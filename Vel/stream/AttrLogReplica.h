#pragma once

#include "Vel/describe/GenericIf.h"
#include "Vel/entity/Dir.h"
#include "Vel/stream/StreamPeer.h"

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

    // Asks the source to change the attribute. The change comes back like any other. Throws ReadOnlyException if the
    // source accepts no changes. Throws RangeException if the source does not send the entity, or sends no value with
    // this id. Throws TypeException for a value of another type.
    void write(Entity const& entity, AttributeId attribute, GenericValue const& value) {
        write(entity, attribute, value.type(), value.data());
    }
    template <class V>
    requires(!std::same_as<V, GenericValue>) void write(Entity const& entity, AttributeId attribute, V const& value) {
        write(entity, attribute, typeOf<V>(), &value);
    }

    class Impl;

private:
    void handleMessage(NboAttrLog::MessageKind kind, NboAttrLog::In& body) override;
    void write(Entity const& entity, AttributeId attribute, VelType type, void const* value);

    String path_;
    bool wantsToWrite_;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Vel
