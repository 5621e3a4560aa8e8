#include "Vel/stream/internal/UnmentionedKeys.h"

#include "Vel/stream/internal/ReplicaSize.h"

namespace Vel {

void UnmentionedKeys::mentioned(ReplicaPlace const& place, bool isThere) {
    if (collections_.empty()) return;
    auto const found = collections_.find({place.id, place.attribute->id});
    if (found == collections_.end()) return;
    auto& [keys, mentioned, comesAgain] = found->second;
    auto const at = keys.find(place.keyText());
    auto key = at == keys.end() ? Keys::node_type() : keys.extract(at);
    if (!comesAgain) return;
    if (!isThere)
        mentioned.erase(std::string(place.keyText()));
    else if (key)
        mentioned.insert(std::move(key));
    else
        mentioned.emplace(place.keyText());
}

void UnmentionedKeys::beginAgain(ReplicaPlace const& collection) {
    Collection& again = collections_[{collection.id, collection.attribute->id}];
    if (std::exchange(again.comesAgain, true)) {
        again.keys.merge(again.mentioned);
        again.mentioned.clear();
        return;
    }
    ReplicaSize::eachKey(*collection.attribute, *collection.entity,
        [&](std::span<U8 const> key) { again.keys.emplace(reinterpret_cast<char const*>(key.data()), key.size()); });
}

bool UnmentionedKeys::comesAgain(ReplicaPlace const& collection) const {
    auto const found = collections_.find({collection.id, collection.attribute->id});
    return found != collections_.end() && found->second.comesAgain;
}

UnmentionedKeys::Keys UnmentionedKeys::endAgain(ReplicaPlace const& collection) {
    auto const found = collections_.find({collection.id, collection.attribute->id});
    Keys keys = std::move(found->second.keys);
    collections_.erase(found);
    return keys;
}

void UnmentionedKeys::gone(EntityId id) {
    collections_.erase(collections_.lower_bound({id, 0}), collections_.upper_bound({id, ~AttributeId(0)}));
}

}  // namespace Vel
