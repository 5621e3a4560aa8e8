#pragma once

#include "Vel/entity/Entity.h"
#include "Vel/stream/internal/GradualMap.h"

#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
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
    // Whether the entity, or one above it, is part of a copy that may still be told where it belongs. An entity that
    // was once found so counts as such until the copy is complete, even if it has got a place meanwhile: what refers to
    // all of these is then told again at once, and not for each.
    bool awaitsPlace(Entity const& entity);
    void isHidden(Entity const& entity);  // some readers may not read the entity, and may have to be told when they may
    std::size_t size() const { return places_.size(); }

private:
    class Place;

    Place& place(Entity const& entity);
    Place& add(Entity const& entity);
    std::optional<std::string> pathOf(Place const& place) const;
    void moved(Place& place);
    bool awaitsPlace(Place& place);
    // Adds the place and all below to `moved`. `isPlaced`: it is below the root now.
    void add(std::vector<Moved>& moved, Place& place, bool isPlaced) const;
    void settled(Place& place);  // the entity does not await its place any more, nor perhaps do others
    void deleted(Place& place) noexcept;

    StreamDemuxer& demuxer_;
    Ptr<Entity> root_;
    Detail::GradualMap<Entity const*, std::unique_ptr<Place>> places_;
    std::unordered_set<Entity const*> waiting_;  // were found to await their places, and have not settled
};

}  // namespace Vel
