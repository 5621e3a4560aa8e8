// expect only: the description lists no attribute of this name
#define SET_SIZE size_ = size, velNotify<"sise">()
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
