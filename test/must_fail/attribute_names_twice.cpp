// expect only: My::P.*each attribute needs a name of its own
#define NAME_OF_Y "x"
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
