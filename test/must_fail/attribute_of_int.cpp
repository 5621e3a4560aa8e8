// expect only: &My::Point::y(;|,).* int(\]|>).*the integers of attributes are Vel::U8, Vel::U16, Vel::U32 and Vel::U64; for one with a sign use double, or a number type of your own
#define MEMBER_Y int y = 0
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
