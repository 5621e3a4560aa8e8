#pragma once

#include "Vel/entity/Entity.h"

#include <exception>

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

    // Called for what one of these observers has thrown. REQUIRES: it is being handled. The list may be gone.
    static void note(NotifieeList const* observers) noexcept {
        if (innermost_ && innermost_->observers_ == observers) innermost_->thrown_ = std::current_exception();
    }

private:
    NotifieeList const* const observers_;
    ObserverFailure* const outer_;
    std::exception_ptr thrown_;
    static constinit thread_local ObserverFailure* innermost_;
};

}  // namespace Vel
