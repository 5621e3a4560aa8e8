// expect only: My::Other.*a type in VEL_MODULE needs a description
#include "Given.h"

namespace My {
class Other {};
}  // namespace My

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place, My::Other);
