// expect only: My::P.*a value can be made from nothing, copied and assigned
#define CONSTRUCTOR_OF_POINT                                                                                           \
    explicit Point(Vel::U32 v) : x(v) {}
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
