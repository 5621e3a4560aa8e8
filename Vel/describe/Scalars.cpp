#include "Vel/describe/Module.h"

// The scalars, as types of their own: attributes name them, and reflection reaches them like any other type.
VEL_MODULE(Scalars, 557e97bc3267922d, bool, Vel::U1, Vel::U8, Vel::U16, Vel::U32, Vel::U64, Vel::F64, Vel::Seconds,
    Vel::String);
