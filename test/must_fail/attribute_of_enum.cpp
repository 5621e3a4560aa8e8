// expect only: &My::Point::y(;|,).* My::Colour(\]|>).*an enumeration has no description: use a class that derives from Vel::EnumerationOf
namespace My {
enum class Colour : unsigned char { red, green };
}

#define MEMBER_Y Colour y = {}
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
