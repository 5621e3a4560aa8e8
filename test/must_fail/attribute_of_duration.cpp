// expect only: &My::Point::y(;|,).*std::chrono::duration<.*times and durations of attributes are Vel::Seconds
#include <chrono>

#define MEMBER_Y std::chrono::milliseconds y = {}
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
