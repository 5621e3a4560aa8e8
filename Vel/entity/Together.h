#pragma once

#include "Vel/base/TableHash.h"
#include "Vel/entity/Entity.h"

#include <optional>
#include <span>
#include <string>
#include <unordered_set>
#include <vector>

namespace Vel {

// Holds back the notifications of one entity while this exists: its observers are told of the changes by tell(). What
// was not told by then is dropped. Most code calls together() instead, see below.
//
// Within another one for the same entity, tell() gives the changes to that one.
class VEL_API HeldChanges {
public:
    // A change of an attribute, or of one key of a collection.
    struct VEL_API Change {
        Change(AttributeId id, NotifieeKey const* of);  // copies the key

        AttributeId attribute;
        std::optional<GenericValue> key{};  // of a collection
    };

    explicit HeldChanges(Entity const& entity);  // REQUIRES: the entity's notifieeList() is not null
    HeldChanges(HeldChanges const&) = delete;
    HeldChanges& operator=(HeldChanges const&) = delete;
    ~HeldChanges();

    // What has changed, each attribute and each key once, in the order in which they changed first.
    std::span<Change const> changes() const { return changes_; }
    template <class F> void dropIf(F f) {
        std::erase_if(changes_, f);
    }                                                         // drops the changes for which f(change) is true
    void add(AttributeId attribute, NotifieeKey const* key);  // called by the entity's list of observers

    // Tells each observer of all the changes, one observer after the other, and holds back nothing any more. If an
    // observer throws, the exception passes, and the observers after it are not told.
    void tell();

private:
    void release();
    bool isNew(AttributeId attribute, NotifieeKey const* key);

    Ptr<Entity const> entity_;
    HeldChanges* outer_;
    std::vector<Change> changes_;
    std::vector<AttributeId> attributes_;                // those that have changed as a whole
    std::unordered_set<std::string, TableHasher> keys_;  // attributes and keys that have changed, as bytes
    bool isHolding_ = true;
};

// Calls change(), which changes several attributes of the entity, and notifies the entity's observers when all of them
// have changed: of each attribute, and of each key of a collection, once. Readers of the entity are sent the values of
// the attributes in one message, and have all of them or none.
//
// If change() throws, the observers are told of what it has changed until then, and the exception passes. change() must
// not run the loop of a transport. REQUIRES: a Ptr refers to the entity.
template <class F> void together(Entity& entity, F&& change) {
    HeldChanges held(entity);
    try {
        change();
    } catch (...) {
        try {
            held.tell();
        } catch (...) {}  // the exception of change() is the one that passes
        throw;
    }
    held.tell();
}

}  // namespace Vel
