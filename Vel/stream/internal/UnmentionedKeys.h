#pragma once

#include "Vel/stream/internal/ReplicaPlace.h"

#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

namespace Vel {

// Keys of a copy's collections that are there and that the source has not mentioned yet, though it mentions all that it
// has: after a connection began, until the sync mark, and while a collection comes again. What is left then has gone.
class VEL_API UnmentionedKeys {
public:
    using Keys = std::set<std::string, std::less<>>;  // as they are encoded

    // Those of a collection that the copy had before, to be filled in.
    Keys& of(EntityId id, AttributeId attribute) { return collections_[{id, attribute}].keys; }
    // The source has said what is at the key: something, or nothing.
    void mentioned(ReplicaPlace const& place, bool isThere);
    // All keys of the collection come again. A source may begin again before the end: so that many beginnings cost no
    // more than the keys that come between them, those that were mentioned are noted, and not looked for.
    void beginAgain(ReplicaPlace const& collection);
    bool comesAgain(ReplicaPlace const& collection) const;
    Keys endAgain(ReplicaPlace const& collection);  // what was not mentioned. REQUIRES: comesAgain()

    void gone(EntityId id);
    // Calls f(id, attribute, keys) for each collection, and forgets all of them first.
    template <class F> void take(F f) {
        for (auto const& [at, unmentioned] : std::exchange(collections_, {})) f(at.first, at.second, unmentioned.keys);
    }
    void clear() { collections_.clear(); }

private:
    struct Collection {
        Keys keys;
        Keys mentioned;  // those that have been, and are there, while the collection comes again
        bool comesAgain = false;
    };
    std::map<std::pair<EntityId, AttributeId>, Collection> collections_;
};

}  // namespace Vel
