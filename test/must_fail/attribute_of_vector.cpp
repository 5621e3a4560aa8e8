// expect only: &My::Point::y(;|,).*std::vector<unsigned int.*an attribute is one value: describe several as a Vel::collection
#include <vector>

#define MEMBER_Y std::vector<Vel::U32> y
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
