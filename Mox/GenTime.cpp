#include "Mox/GenTime.h"

#include "Vel/describe/Module.h"

VEL_MODULE(GenTime, fccc10043bff97d9, Mox::GenTime);
