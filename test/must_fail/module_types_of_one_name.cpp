// expect only: My::Point, My::Place.*each type of a module needs a name of its own
#define DESCRIPTION_OF_PLACE Vel::entity("My::Point", SIZE_OF_PLACE)
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
