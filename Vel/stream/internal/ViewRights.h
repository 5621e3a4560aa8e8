#pragma once

#include "Vel/stream/StreamRights.h"
#include "Vel/stream/internal/StreamAdapter.h"
#include "Vel/stream/internal/StreamPlaces.h"

#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>

namespace Vel {

// What the readers of a view may do. Also notes which keys of collections of entities they may have heard of: those at
// which there was a member that they may read, when the view last looked. Of any other key they hear nothing, not even
// that it is gone.
class VEL_API ViewRights {
public:
    using Adapter = Entity::VelNboAttrLogSa;

    ViewRights(std::shared_ptr<StreamRights const> rights, std::shared_ptr<StreamPlaces> places)
        : rights_(std::move(rights)), places_(std::move(places)) {}

    StreamRights const& rights() const { return *rights_; }
    Access of(Entity const& entity) const;
    bool mayRead(Entity const& entity) const;  // also notes in the entity's place if it is hidden

    bool names(Adapter const& adapter, StreamAttribute const& attribute, std::string_view key) const;
    void nameIs(Adapter const& adapter, StreamAttribute const& attribute, std::string_view key, bool on);
    void forget(Adapter const& adapter) { names_.erase(adapter.slot()); }
    void forgetAll() { names_.clear(); }

private:
    using Keys = std::set<std::string, std::less<>>;

    std::shared_ptr<StreamRights const> rights_;
    std::shared_ptr<StreamPlaces> places_;
    std::map<U32, std::map<AttributeId, Keys>> names_;  // by slot and attribute
};

}  // namespace Vel
