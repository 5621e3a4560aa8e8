#include "Vel/entity/ActivityManager.h"

namespace Vel {

ActivityManager& activityManager() {
    static auto* const instance = new ActivityManager;  // never destroyed: entities may read it during exit
    return *instance;
}

}  // namespace Vel
