// expect only: My::P.*an entity has attributes, and no fields
#define SET_SIZE size_ = size
#define DESCRIPTION_OF_PLACE Vel::entity("My::Place", Vel::field<&Place::size_>("size"))
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
