// expect only: My::Point(;|,).*(.move.|'m', 'o', 'v', 'e').*(.d-y.|'d', '-', 'y').*the name of an attribute or a parameter is an identifier
#define PARAMETERS_OF_MOVE "dx", "d-y"
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
