#pragma once

#include "Vel/base/String.h"
#include "Vel/base/Types.h"

namespace Vel {

// The system to which the process belongs. Threads: set the name before other threads read it.
class VEL_API ActivityManager {
public:
    String const& systemName() const { return systemName_; }  // empty until set
    void systemNameIs(String const& name) {
        systemName_ = name;
        ++changes_;
    }
    U32 changes() const { return changes_; }  // how often the name was set, so that what was found by it can be kept

private:
    String systemName_;
    U32 changes_ = 0;
};

VEL_API ActivityManager& activityManager();  // the only one of the process

}  // namespace Vel
