#pragma once

#include "Vel/describe/GenericIf.h"
#include "Vel/entity/Dir.h"
#include "Vel/stream/StreamPeer.h"

#include <functional>
#include <memory>

namespace Vel {

// A copy of what a source serves. What comes in is applied through the entities' own mutators, so their observers are
// told as of any other change.
//
// The copy outlives the connection: it is stale then. On the next connection what is there already is kept, found by
// where it stands, and observers see the differences only; what the source has no more is deleted when all is sent.
// The copy is changed by its source alone. What else changes it stays until the source changes the same attribute.
// Threads: one at a time, the one that uses the entities.
class VEL_API AttrLogReplica final : public StreamPeer {
public:
    enum class State {
        empty,    // nothing has come yet
        syncing,  // connected; the copy becomes complete
        synced,   // complete, and kept so
        stale     // not connected; as it was last
    };
    struct Options {
        String path;                // of what is wanted, at the source
        bool wantsToWrite = false;  // see write()
        StreamLimits limits{};
    };

    // The copy is `root` and what is below it. REQUIRES: the type is the one that the source serves.
    AttrLogReplica(Ptr<Entity> root, Options options);
    // The copy is made in the directory, in the place of what has the name and another type.
    AttrLogReplica(Ptr<Dir> parent, String name, Options options);
    ~AttrLogReplica() override;

    void connected();  // a connection is there: says hello on it. After closed() it may be another one
    void closed(String const& reason) override;

    State state() const;
    void onStateIs(std::function<void(State)> told);
    Ptr<Entity> root() const;      // null until something has come, unless it was given
    bool mayWrite() const;         // the source takes changes
    std::size_t entities() const;  // that the source has told of
    std::size_t copySize() const;  // bytes that the source makes the copy take, by estimate

    // Asks the source to change the attribute; the change comes back like any other. Throws ReadOnlyException when the
    // source takes none, RangeException when the entity or the attribute is none that the source sends, TypeException
    // for a value of another type.
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
