#include "Mount/Status.h"

#include "Vel/describe/Module.h"

namespace Mount {

ServerStatus::ServerStatus(String const& name) : EntityOf(name) {}
ServerStatus::~ServerStatus() = default;

ClientStatus::ClientStatus(String const& name) : EntityOf(name) {}
ClientStatus::~ClientStatus() = default;

}  // namespace Mount

VEL_MODULE(Mount, d5ef96bcdb25b90d, Mount::ServerStatus, Mount::ClientStatus);
