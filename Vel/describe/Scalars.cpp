#include "Vel/describe/Module.h"

// Registers the scalars as types, so that attributes can refer to them, and reflection can use them like any other
// type.
VEL_MODULE(Scalars, 557e97bc3267922d, bool, Vel::U1, Vel::U8, Vel::U16, Vel::U32, Vel::U64, Vel::F64, Vel::Seconds,
    Vel::String);
