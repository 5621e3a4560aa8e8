#pragma once

#include "Vel/base/Types.h"

#include <exception>

namespace Vel {

// Tells an exception that an observer has thrown from one of the mutator that has notified it. While one of these
// exists, it notes what observers on its thread throw.
class VEL_API ObserverFailure {
public:
    ObserverFailure() noexcept : outer_(innermost_) { innermost_ = this; }
    ObserverFailure(ObserverFailure const&) = delete;
    ObserverFailure& operator=(ObserverFailure const&) = delete;
    ~ObserverFailure() { innermost_ = outer_; }

    bool isHandled() const { return thrown_ == std::current_exception(); }  // REQUIRES: an exception is being handled

    static void note() noexcept {  // called for what an observer has thrown. REQUIRES: it is being handled
        if (innermost_) innermost_->thrown_ = std::current_exception();
    }

private:
    ObserverFailure* const outer_;
    std::exception_ptr thrown_;
    static constinit thread_local ObserverFailure* innermost_;
};

}  // namespace Vel
