// expect only: &My::Point::moveIs(;|,).* int(\]|>).*the integers of attributes are
#define MOVE                                                                                                           \
    int moveIs(Vel::U32 dx, Vel::U32) { return x += dx, 0; }
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
