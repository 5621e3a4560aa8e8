// expect: (deleted function .Vel::NotifieeList::NotifieeList|deleted constructor of .Vel::NotifieeList)
#include "Vel/entity/NotifieeList.h"

Vel::NotifieeList list;
Vel::NotifieeList copy = list;
