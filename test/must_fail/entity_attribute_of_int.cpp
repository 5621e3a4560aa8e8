// expect only: &My::Place::size_(;|,).* int(\]|>).*the integers of attributes are
#define TYPE_OF_SIZE int
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
