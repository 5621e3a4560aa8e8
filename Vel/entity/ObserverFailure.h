#pragma once

#include "Vel/entity/Together.h"

#include <exception>
#include <span>
#include <utility>
#include <vector>

namespace Vel {

// Tells an exception that an observer of an entity has thrown from one of the mutator that has notified it. While one of
// these exists, it notes what the entity's observers throw on its thread, if the entity has two or more of them.
class VEL_API ObserverFailure {
public:
    explicit ObserverFailure(Entity const& entity) noexcept : observers_(entity.notifieeList()), outer_(innermost_) {
        innermost_ = this;
    }
    ObserverFailure(ObserverFailure const&) = delete;
    ObserverFailure& operator=(ObserverFailure const&) = delete;
    ~ObserverFailure() { innermost_ = outer_; }

    bool isHandled() const { return thrown_ == std::current_exception(); }  // REQUIRES: an exception is being handled

    // The changes of which not all of them were told, since one has thrown. Gives them away.
    std::vector<HeldChanges::Change> takeUntold() { return std::move(untold_); }

    // Called for what one of these observers has thrown when it was told of these changes. REQUIRES: it is being
    // handled. The list may be gone.
    static void note(NotifieeList const* observers, std::span<HeldChanges::Change const> changes);

private:
    NotifieeList const* const observers_;
    ObserverFailure* const outer_;
    std::exception_ptr thrown_;
    std::vector<HeldChanges::Change> untold_;
    static constinit thread_local ObserverFailure* innermost_;
};

}  // namespace Vel
