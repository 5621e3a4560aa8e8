#include "Redundancy/RedundancyStatus.h"

#include "Vel/describe/Module.h"

namespace Redundancy {

RedundancyStatus::RedundancyStatus(Vel::String const& name) : EntityOf(name) {}
RedundancyStatus::~RedundancyStatus() = default;

Vel::Ptr<RedundancyStatus> redundancyStatusFactory(Vel::String const& name) {
    return RedundancyStatus::newEntity(name);
}

}  // namespace Redundancy

VEL_MODULE(RedundancyStatus, d91e8bc9a3c1ea22, Redundancy::RedundancyStatus);
