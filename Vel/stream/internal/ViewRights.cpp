#include "Vel/stream/internal/ViewRights.h"

namespace Vel {

Access ViewRights::of(Entity const& entity) const {
    if (places_->awaitsPlace(entity)) return Access::none;
    std::optional<String> const path = places_->path(entity);
    return path ? rights_->of(*path) : rights_->of(String()) | Access::read;
}

bool ViewRights::mayRead(Entity const& entity) const {
    bool const may = allows(of(entity), Access::read);
    if (!may) places_->isHidden(entity);
    return may;
}

bool ViewRights::names(Adapter const& adapter, StreamAttribute const& attribute, std::string_view key) const {
    auto const found = names_.find(adapter.slot());
    if (found == names_.end()) return false;
    auto const keys = found->second.find(attribute.id);
    return keys != found->second.end() && keys->second.contains(key);
}

void ViewRights::nameIs(Adapter const& adapter, StreamAttribute const& attribute, std::string_view key, bool on) {
    if (!on && !names(adapter, attribute, key)) return;
    Keys& keys = names_[adapter.slot()][attribute.id];
    auto const place = keys.lower_bound(key);
    bool const isThere = place != keys.end() && *place == key;
    if (on && !isThere)
        keys.emplace_hint(place, key);
    else if (!on)
        keys.erase(place);
}

}  // namespace Vel
