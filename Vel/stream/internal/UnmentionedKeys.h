#pragma once

#include "Vel/stream/internal/ReplicaPlace.h"

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

namespace Vel {

// Keys that collections of a copy have, and that the source has not mentioned yet. The source mentions all keys that it
// has between the beginning of a connection and the sync mark, and while a collection comes again. Keys that it has not
// mentioned by the end have gone.
class VEL_API UnmentionedKeys {
public:
    using Keys = std::set<std::string, std::less<>>;  // as they are encoded

    // The unmentioned keys of a collection that the copy had before. The caller fills them in.
    Keys& of(EntityId id, AttributeId attribute) { return collections_[{id, attribute}].keys; }
    // Called when the source has said what is at the key: something if `isThere`, else nothing.
    void mentioned(ReplicaPlace const& place, bool isThere);
    // Called when all keys of the collection come again. A source may begin again before the end. The keys that were
    // mentioned are noted, so that the collection is listed for the first beginning only: further ones cost no more
    // than the keys that came between them.
    void beginAgain(ReplicaPlace const& collection);
    bool comesAgain(ReplicaPlace const& collection) const;
    Keys endAgain(ReplicaPlace const& collection);  // returns the keys that were not mentioned. REQUIRES: comesAgain()

    void gone(EntityId id);
    // Calls f(id, attribute, keys) for each collection, and forgets all of them first.
    template <class F> void take(F f) {
        for (auto const& [at, unmentioned] : std::exchange(collections_, {})) f(at.first, at.second, unmentioned.keys);
    }
    void clear() { collections_.clear(); }

private:
    struct Collection {
        Keys keys;
        Keys mentioned;  // while the collection comes again: mentioned keys that exist
        bool comesAgain = false;
    };
    std::map<std::pair<EntityId, AttributeId>, Collection> collections_;
};

}  // namespace Vel
