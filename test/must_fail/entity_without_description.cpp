// expect only: My::Place.*a class that derives from EntityOf needs a description\(\) of its own: this one has that of its base
#define PLACE_WITHOUT_DESCRIPTION
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
