#include "examples/Sky.h"

#include "Vel/describe/Module.h"

VEL_MODULE(Sky, 35915efbbe3e0829, Weather::Sky, Weather::View);
