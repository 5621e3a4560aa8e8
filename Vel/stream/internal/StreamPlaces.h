#pragma once

#include "Vel/entity/Entity.h"
#include "Vel/stream/internal/GradualMap.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Vel {

class StreamDemuxer;

// Where the entities are at which views with rights have looked: a tree of places like that of the entities, from the
// served root down. It observes them, and has the views look again at all that has moved. Holds no reference but to the
// root.
class VEL_API StreamPlaces {
public:
    struct Moved {
        Entity const* entity;
        bool wasHidden;  // some view has found that its readers may not read it
    };

    StreamPlaces(StreamDemuxer& demuxer, Ptr<Entity> root);
    StreamPlaces(StreamPlaces const&) = delete;
    StreamPlaces& operator=(StreamPlaces const&) = delete;
    ~StreamPlaces();

    // Returns the path for StreamRights. If the entity is not below the root, returns its last path that is known, or
    // nothing.
    std::optional<String> path(Entity const& entity);
    void isHidden(Entity const& entity);  // some readers may not read the entity, and may have to be told when they may
    std::size_t size() const { return places_.size(); }

private:
    class Place;

    Place& place(Entity const& entity);
    Place& add(Entity const& entity);
    std::optional<std::string> pathOf(Place const& place) const;
    void moved(Place& place);
    void movedBelow(Place& place, bool isPlaced);  // `isPlaced`: it is below the root now
    void deleted(Place& place) noexcept;

    StreamDemuxer& demuxer_;
    Ptr<Entity> root_;
    Detail::GradualMap<Entity const*, std::unique_ptr<Place>> places_;
};

}  // namespace Vel
