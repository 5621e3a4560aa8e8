// expect: observer. (to be of|is an) abstract|type .Vel::Notifiee. is an abstract class
#include "Vel/entity/NotifieeList.h"

Vel::Notifiee observer;
