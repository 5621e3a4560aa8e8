// expect: theDescriptionListsNoAttributeOfThisName
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);

static_assert(Vel::attributeId<My::Place>("size") == 258);
static_assert(Vel::attributeId<My::Place>("sise") == 258);
