#include "Vel/stream/internal/StreamPlaces.h"

#include "Vel/stream/StreamRights.h"
#include "Vel/stream/internal/StreamDemuxer.h"

namespace Vel {

// The place of one entity. Those below it are a list.
class StreamPlaces::Place final : public Notifiee {
public:
    Place(StreamPlaces& places, Entity const& entity) : places_(places), entity_(entity), name_(entity.name()) {
        notifierIs(&entity);
    }
    ~Place() override = default;

    Entity const& entity() const { return entity_; }
    std::string_view name() const { return name_.view(); }
    Place* above() const { return above_; }
    Place* firstBelow() const { return first_; }
    Place* next() const { return next_; }
    void aboveIs(Place* above);
    void nameAgain() { name_ = entity_.name(); }

    std::optional<std::string> last;  // its path, if it is not below the root any more
    bool isHidden = false;
    bool waits = false;  // it is in waiting_; or it was taken out of one that is, and has no other place yet

    void handleAttribute(AttributeId) override {}
    void handleAttribute(AttributeId, NotifieeKey const&) override {}
    bool handleTogether(HeldChanges const&) override { return true; }
    void handleNotifierParent() override { places_.moved(*this); }
    void handleNotifierDel() noexcept override { places_.deleted(*this); }

private:
    StreamPlaces& places_;
    Entity const& entity_;
    String name_;  // kept, since an entity that is being destroyed has none
    Place* above_ = nullptr;
    Place* first_ = nullptr;  // below it
    Place* next_ = nullptr;
    Place* before_ = nullptr;
};

void StreamPlaces::Place::aboveIs(Place* above) {
    if (above_) {
        (before_ ? before_->next_ : above_->first_) = next_;
        if (next_) next_->before_ = before_;
        next_ = before_ = nullptr;
    }
    above_ = above;
    if (!above) return;
    next_ = above->first_;
    if (next_) next_->before_ = this;
    above->first_ = this;
}

StreamPlaces::StreamPlaces(StreamDemuxer& demuxer, Ptr<Entity> root) : demuxer_(demuxer), root_(std::move(root)) {}
StreamPlaces::~StreamPlaces() = default;

StreamPlaces::Place& StreamPlaces::add(Entity const& entity) {
    return *places_.add(&entity, std::make_unique<Place>(*this, entity));
}

// Makes the places of the entities above, too, as far as there are none.
StreamPlaces::Place& StreamPlaces::place(Entity const& entity) {
    if (auto const* const found = places_.find(&entity)) return **found;
    Place& made = add(entity);
    for (Place* at = &made; &at->entity() != root_.get() && at->entity().parent();) {
        auto const* const found = places_.find(at->entity().parent());
        Place& above = found ? **found : add(*at->entity().parent());
        at->aboveIs(&above);
        if (found) break;
        at = &above;
    }
    return made;
}

std::optional<std::string> StreamPlaces::pathOf(Place const& place) const {
    std::vector<std::string_view> names;
    std::string path;
    for (Place const* at = &place; &at->entity() != root_.get(); at = at->above()) {
        if (at->last) path = *at->last;
        if (at->last) break;
        if (!at->above()) return std::nullopt;
        names.push_back(at->name());
    }
    for (auto name = names.rbegin(); name != names.rend(); ++name) path = plainPath(*name, std::move(path));
    return path;
}

std::optional<String> StreamPlaces::path(Entity const& entity) {
    if (&entity == root_.get()) return String();
    std::optional<std::string> const path = pathOf(place(entity));
    return path ? std::optional<String>(*path) : std::nullopt;
}

void StreamPlaces::isHidden(Entity const& entity) { place(entity).isHidden = true; }

bool StreamPlaces::awaitsPlace(Entity const& entity) { return &entity != root_.get() && awaitsPlace(place(entity)); }

bool StreamPlaces::awaitsPlace(Place& place) {
    for (Place* at = &place; at && &at->entity() != root_.get(); at = at->above()) {
        if (at->entity().awaitsPlace()) {
            waiting_.insert(&at->entity());
            at->waits = true;
        }
        if (at->waits) return true;
        if (at->last) return false;
    }
    return false;
}

// --- moves ---

// An entity that is taken out, or put to something that is itself not below the root, keeps its path for the time
// being. If it never had one, it gets that of something that was taken out, when it is put there. If something above it
// awaited its place, nobody knows what its path was, so it is hidden until it is below the root.
void StreamPlaces::moved(Place& place) {
    if (&place.entity() == root_.get()) return;
    Entity const* const parent = place.entity().parent();
    if (parent == (place.above() ? &place.above()->entity() : nullptr)) return settled(place);
    bool const waited = awaitsPlace(place);
    std::optional<std::string> before = pathOf(place);
    place.aboveIs(parent ? &this->place(*parent) : nullptr);
    place.nameAgain();
    Place const* top = &place;
    while (top->above() && &top->entity() != root_.get()) top = top->above();
    std::vector<Moved> moved;
    if (&top->entity() == root_.get()) {
        add(moved, place, true);
    } else {
        place.waits = waited;
        if (before)
            place.last = std::move(before);
        else if (!waited && (awaitsPlace(place) || pathOf(place)))
            add(moved, place, false);
    }
    if (!moved.empty()) demuxer_.haveMoved(moved);
}

void StreamPlaces::add(std::vector<Moved>& moved, Place& place, bool isPlaced) const {
    std::vector<Place*> left{&place};
    while (!left.empty()) {
        Place& next = *left.back();
        left.pop_back();
        if (isPlaced) {
            next.last.reset();
            next.waits = waiting_.contains(&next.entity());
        }
        moved.push_back({&next.entity(), std::exchange(next.isHidden, false)});
        for (Place* below = next.firstBelow(); below; below = below->next()) left.push_back(below);
    }
}

// A view visits all that it has for what is shown to its readers. So all that have settled are shown at once.
void StreamPlaces::settled(Place& place) {
    if (!place.waits || place.entity().awaitsPlace()) return;
    std::vector<Place*> settled{&place};
    waiting_.erase(&place.entity());
    std::erase_if(waiting_, [&](Entity const* entity) {
        if (entity->awaitsPlace()) return false;
        settled.push_back(places_.find(entity)->get());
        return true;
    });
    for (Place* const at : settled) at->waits = false;
    std::vector<Moved> moved;
    for (Place* const at : settled) add(moved, *at, false);
    demuxer_.haveMoved(moved);
}

void StreamPlaces::deleted(Place& place) noexcept {
    while (Place* const below = place.firstBelow()) {
        if (!below->last) below->last = pathOf(*below);
        below->aboveIs(nullptr);
    }
    place.aboveIs(nullptr);
    waiting_.erase(&place.entity());
    places_.erase(&place.entity());
}

}  // namespace Vel
