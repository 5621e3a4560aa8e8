// expect only: &My::Point::y(;|,).*basic_string<char.*the text of attributes is Vel::String
#include <string>

#define MEMBER_Y std::string y
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
