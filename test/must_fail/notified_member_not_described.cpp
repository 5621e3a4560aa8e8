// expect: the description does not list this member as an attribute
#define SET_SIZE velSet<&Place::other_>(size)
#define MORE_OF_PLACE Vel::U32 other_ = 0
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
