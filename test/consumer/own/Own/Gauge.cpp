#include "Own/Gauge.h"

#include "Vel/describe/Module.h"

VEL_MODULE(Own, 201c844137399b95, Own::Gauge);
