// expect only: My::P.*a record without fields needs a text form and a stream form of its own
#define DESCRIPTION_OF_POINT Vel::record("My::Point", METHOD_OF_POINT)
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
