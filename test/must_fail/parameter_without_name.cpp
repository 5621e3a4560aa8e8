// expect only: name every parameter of the function
#define PARAMETERS_OF_MOVE "dx"
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
