#pragma once

#include "Mount/Loop.h"

#include <exception>

namespace Mount {

// Does what a destructor has to. What an observer throws meanwhile would end the process there, so the loop throws it,
// when it is run the next time.
template <class Work> void destroy(Loop& loop, Work work) noexcept {
    try {
        work();
    } catch (...) {
        try {
            loop.post([error = std::current_exception()] { std::rethrow_exception(error); });
        } catch (...) {  // no memory: nobody can be told
            return;
        }
    }
}

}  // namespace Mount
