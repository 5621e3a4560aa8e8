#include "Vel/stream/internal/ChangeLists.h"

namespace Vel {

LastChanges::Place LastChanges::keep(KeptChange const& change) {
    auto const found = places_.find(&change);
    bool const isKnown = found != places_.end();
    Place const place = isKnown ? found->second : newPlace();
    if (isKnown) unlink(place);
    kept_[place].change = change;
    if (!isKnown) places_.emplace(&kept_[place].change, place);
    linkAsNewest(place);
    return place;
}

// Returns a place that is in no list: one more, or that of the attribute that has changed least recently.
LastChanges::Place LastChanges::newPlace() {
    if (kept_.size() < size_) {
        kept_.emplace_back();
        return static_cast<Place>(kept_.size() - 1);
    }
    Place const place = oldest_;
    places_.erase(&kept_[place].change);
    unlink(place);
    return place;
}

void LastChanges::unlink(Place place) {
    Kept const& kept = kept_[place];
    (kept.newer == none ? newest_ : kept_[kept.newer].older) = kept.older;
    (kept.older == none ? oldest_ : kept_[kept.older].newer) = kept.newer;
}

void LastChanges::linkAsNewest(Place place) {
    kept_[place].newer = none;
    kept_[place].older = newest_;
    (newest_ == none ? oldest_ : kept_[newest_].newer) = place;
    newest_ = place;
}

}  // namespace Vel
