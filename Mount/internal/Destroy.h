#pragma once

#include "Mount/Loop.h"

#include <exception>

namespace Mount {

// Runs `work` for a destructor. An observer's exception is rethrown by the loop's next run, instead of ending the
// process.
template <class Work> void destroy(Loop& loop, Work work) noexcept {
    try {
        work();
    } catch (...) {
        try {
            loop.post([error = std::current_exception()] { std::rethrow_exception(error); });
        } catch (...) {  // no memory to post it: the exception is lost
            return;
        }
    }
}

}  // namespace Mount
