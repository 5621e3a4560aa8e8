// expect only: (60f72dd811e644b6|'6', '0', 'f', '7', '2', 'd', 'd', '8', '1', '1', 'e', '6', '4', '4', 'b', '6').*(75048f05d0bf289d|'7', '5', '0', '4', '8', 'f', '0', '5', 'd', '0', 'b', 'f', '2', '8', '9', 'd').*the module.s description has changed: give VEL_MODULE the fingerprint that stands first
#define NAME_OF_Y "z"
#include "Given.h"

VEL_MODULE(My, 75048f05d0bf289d, My::Point, My::Place);
