#pragma once

#include "Vel/base/TableHash.h"
#include "Vel/describe/StreamTable.h"
#include "Vel/entity/Dir.h"
#include "Vel/entity/NotifieeList.h"
#include "Vel/stream/StreamPeer.h"

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <vector>

namespace Vel {

// A copy of what a source serves. What comes in is applied through the entities' own mutators, so their observers are
// told as of any other change.
//
// The copy outlives the connection: it is stale then. On the next connection what is there already is kept, found by
// where it stands, and observers see the differences only; what the source has no more is deleted when all is sent.
// The copy is changed by its source alone. What else changes it stays until the source changes the same attribute.
// Threads: one at a time, the one that uses the entities.
class VEL_API AttrLogReplica final : public StreamPeer, private NboAttrLog::EntityResolver {
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

    State state() const { return state_; }
    void onStateIs(std::function<void(State)> told) { onState_ = std::move(told); }
    Ptr<Entity> root() const { return root_; }   // null until something has come, unless it was given
    bool mayWrite() const { return mayWrite_; }  // the source takes changes
    std::size_t entities() const { return known_.size(); }
    std::size_t copySize() const { return size_; }  // bytes that the source makes the copy take, by estimate

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

private:
    struct Known {
        Ptr<Entity> entity;
        StreamTable const* table;
        std::size_t keys = 0;  // of its collections of values
        std::size_t size = 0;  // bytes, by estimate, with its keys
    };
    // An entity that the source knows no more and somebody here holds counts until it is destroyed.
    class Left;
    // Keys of a collection that are there and have not been mentioned.
    struct Unmentioned {
        using Keys = std::set<std::string, std::less<>>;
        Keys keys;
        Keys mentioned;  // those that have been, and are there, while the collection comes again
        bool comesAgain = false;
    };
    void write(Entity const& entity, AttributeId attribute, VelType type, void const* value);
    struct Place;  // an attribute of an entity that a message names, and the key

    void handleMessage(NboAttrLog::MessageKind kind, NboAttrLog::In& body) override;
    void type(NboAttrLog::In& body);
    void announce(NboAttrLog::In& body);
    void value(NboAttrLog::In& body);
    void keySet(NboAttrLog::In& body);
    void keyValue(Place const& place, NboAttrLog::In& body);
    void keyDel(NboAttrLog::In& body);
    void keysAgain(NboAttrLog::In& body);
    void keysEnd(NboAttrLog::In& body);
    void gone(NboAttrLog::In& body);
    void synced();

    Entity* entity(EntityId id) override;
    Known& known(EntityId id);
    Place place(NboAttrLog::In& body);
    Ptr<Entity> rootOf(VelType type, bool& isNew);
    Ptr<Entity> announced(VelType type, Place const& place, String const& name, bool& isNew);
    Ptr<Entity> instantiate(VelType type, Place const& place, String const& name, Entity* there);
    bool checkEphemeralEntityDeletion(Place const& place, Entity* there);
    void put(Place const& place, EntityId id, Entity& member);
    bool replace(Place const& place, EntityId id, Entity& member, bool makes);
    bool makeRoom(Place const& place, EntityId id, Entity& member);
    void told(Place const& place, bool isThere = true);
    void block(Place const& place, EntityId id);
    void blockedDel(EntityId id);
    void retry(EntityId id);
    struct Link {
        Ptr<Entity> entity, parent;
    };
    Link linkOf(Entity* entity) const;  // null while nothing waits
    void loosenedIs(Link const& before);
    void putLoosened();
    void putBlocked();
    void checkDepth(Entity const& entity) const;
    Place collection(NboAttrLog::In& body);
    void delUnmentioned(EntityId id, AttributeId attribute, Unmentioned::Keys const& keys);
    void needRoom(std::size_t more) const;
    void sizeChanged(EntityId id, std::size_t before, std::size_t after);
    void leftIs(Known const& known);
    void valueDel(Place const& place);
    void bind(EntityId id, Ptr<Entity> entity, bool isNew);
    void mentioned(Place const& place, bool isThere = true);
    void memberDel(Place const& place);
    void detach(Entity& entity);
    void disconnected();
    void stateIs(State state);

    Options options_;
    Ptr<Dir> parent_;
    String name_;
    Ptr<Entity> root_;
    State state_ = State::empty;
    std::function<void(State)> onState_;
    friend class Left;
    bool welcomed_ = false;
    bool mayWrite_ = false;

    // Of this connection:
    EntityId rootId_ = 0;  // 0: nothing has been announced
    std::map<U32, VelType> types_;
    std::unordered_map<EntityId, Known, TableHasher> known_;  // the source chooses the ids
    std::unordered_map<Entity const*, EntityId> ids_;
    std::size_t keys_ = 0;  // of all known entities
    std::size_t size_ = 0;  // of these, and of those that are left
    // Of what was there before, and of collections that come again.
    std::map<std::pair<EntityId, AttributeId>, Unmentioned> unmentioned_;
    // Members that can't go yet where the source has them, for here their new owner is still within them. Each waits
    // for one place, and in a place there is one.
    struct InOrder {  // of places: owner, attribute, key as a string or a view of one
        using is_transparent = void;
        template <class A, class B> bool operator()(A const& a, B const& b) const {
            if (std::get<0>(a) != std::get<0>(b)) return std::get<0>(a) < std::get<0>(b);
            if (std::get<1>(a) != std::get<1>(b)) return std::get<1>(a) < std::get<1>(b);
            return std::string_view(std::get<2>(a)) < std::string_view(std::get<2>(b));
        }
    };
    using Blocked = std::map<std::tuple<EntityId, AttributeId, std::string>, EntityId, InOrder>;
    Blocked blocked_;
    std::map<EntityId, Blocked::iterator> blockedMembers_;
    std::vector<Ptr<Entity>> loosened_;  // those that something has left, for which a member above may be waiting

    // Of all connections:
    std::unordered_map<Entity const*, std::unique_ptr<Left>> left_;
    std::size_t leftSize_ = 0;
    std::size_t sizeBefore_ = 0;  // of what earlier ones made and may be there still, until the sync mark
};

}  // namespace Vel
