#pragma once

#include "Vel/base/String.h"

namespace Vel {

// The system to which the process belongs. Threads: set the name before other threads read it.
class VEL_API ActivityManager {
public:
    String const& systemName() const { return systemName_; }  // empty until set
    void systemNameIs(String const& name) { systemName_ = name; }

private:
    String systemName_;
};

VEL_API ActivityManager& activityManager();  // the only one of the process

}  // namespace Vel
