// expect first: My::P.*an entity type derives from Vel::Entity
#define DESCRIPTION_OF_POINT Vel::entity("My::Point", METHOD_OF_POINT)
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
