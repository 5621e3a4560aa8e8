// expect only: My::Point(;|,).*(.2nd.|'2', 'n', 'd').*the name of an attribute or a parameter is an identifier
#define NAME_OF_Y "2nd"
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
