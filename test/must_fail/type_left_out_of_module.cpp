// expect at link: Vel::DefinedByVEL_MODULE<My::Point>::type\(\)
#define MORE_OF_PLACE                                                                                                  \
    Point at() const { return at_; }                                                                                   \
    Point at_
#define DESCRIPTION_OF_PLACE Vel::entity("My::Place", Vel::attribute<&Place::at_, &Place::at>("at"), SIZE_OF_PLACE)
#include "Given.h"

VEL_MODULE(My, c10be565bf43b575, My::Place);
