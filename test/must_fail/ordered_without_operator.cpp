// expect only: My::P.*an ordered type needs operator<
#define DESCRIPTION_OF_POINT Vel::record("My::Point", FIELDS_OF_POINT, METHOD_OF_POINT).with(Vel::ordered)
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
