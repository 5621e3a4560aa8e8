// expect only: &My::Point::y(;|,).* My::Pair(\]|>).*the type of an attribute is a scalar, or describes itself: give the class a description
namespace My {
struct Pair {
    unsigned a = 0;
    bool operator==(Pair const&) const = default;
};
}  // namespace My

#define MEMBER_Y Pair y
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
