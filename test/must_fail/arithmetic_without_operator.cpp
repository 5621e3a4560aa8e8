// expect only: My::P.*arithmetic that names no function needs the type's own operator
#define DESCRIPTION_OF_POINT                                                                                           \
    Vel::record("My::Point", FIELDS_OF_POINT, METHOD_OF_POINT).with(Vel::arithmetic<Vel::AttributeOp::sum>)
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
