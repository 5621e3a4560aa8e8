#pragma once

#include "Vel/base/Types.h"

namespace Vel {

// What a reader does about a type that the source has, and that this process does not have, or has with another
// description. Without any of these, which is the policy `exact`, the connection ends with an error that has both
// fingerprints. See docs/upgrading.md.
struct StreamPolicy {
    // An entity of a type that this process has otherwise is copied by the names of its attributes: those that have the
    // same type on both sides. Nothing is converted.
    bool byName = false;
    // An entity of any other type becomes a ForeignEntity, made from the source's description.
    bool described = false;

    bool isExact() const { return !byName && !described; }
};

}  // namespace Vel
