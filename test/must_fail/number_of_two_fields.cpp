// expect only: My::P.*a number has exactly one field
#define DESCRIPTION_OF_POINT Vel::number("My::Point", FIELDS_OF_POINT, METHOD_OF_POINT)
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
