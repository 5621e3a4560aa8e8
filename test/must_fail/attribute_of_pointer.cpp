// expect only: &My::Point::y(;|,).* Vel::Entity ?\*(\]|>).*an attribute that refers to an entity is a Vel::Ptr
#define MEMBER_Y Vel::Entity* y = nullptr
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
