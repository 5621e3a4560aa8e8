// expect first: the fingerprint in VEL_MODULE has 16 hexadecimal digits
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289, My::Point, My::Place);
