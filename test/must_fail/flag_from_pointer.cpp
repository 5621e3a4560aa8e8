// expect: no viable conversion from .int \*. to .Vel::U1.|conversion from .int\*. to non-scalar type .Vel::U1.
#include "Vel/base/Types.h"

int number = 0;
Vel::U1 flag = &number;
