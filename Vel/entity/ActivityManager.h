#pragma once

#include "Vel/base/String.h"

namespace Vel {

// What the process runs as part of. Threads: set it up before other threads read it.
class VEL_API ActivityManager {
public:
    String const& systemName() const { return systemName_; }  // empty until set
    void systemNameIs(String const& name) { systemName_ = name; }

private:
    String systemName_;
};

VEL_API ActivityManager& activityManager();  // the process's one

}  // namespace Vel
