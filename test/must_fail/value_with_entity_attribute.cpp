// expect only: My::P.*a value has fields, and no attributes
#define MOVE                                                                                                           \
    void moveIs(Vel::U32 dx, Vel::U32) { x += dx; }                                                                    \
    Vel::U32 yOf() const { return y; }
#define DESCRIPTION_OF_POINT                                                                                           \
    Vel::record("My::Point", FIELDS_OF_POINT, Vel::attribute<&Point::x, &Point::yOf>("z"), METHOD_OF_POINT)
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
