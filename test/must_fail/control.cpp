// Compiles: the other files that include Given.h differ from it in one thing each.
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
