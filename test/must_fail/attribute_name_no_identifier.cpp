// expect only: My::Point(;|,).*(.how far.|'h', 'o', 'w', ' ', 'f', 'a', 'r').*the name of an attribute or a parameter is an identifier
#define NAME_OF_Y "how far"
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
