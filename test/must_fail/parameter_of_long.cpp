// expect only: &My::Point::moveIs(;|,).* long( int)?(\]|>).*the integers of attributes are
#define MOVE                                                                                                           \
    void moveIs(Vel::U32 dx, long) { x += dx; }
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
