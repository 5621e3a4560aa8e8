// expect only: &My::Point::y(;|,).* float(\]|>).*the floating-point type of attributes is double
#define MEMBER_Y float y = 0
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
