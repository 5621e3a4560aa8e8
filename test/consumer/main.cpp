// A user's program: built and run against the installed package, the subdirectory and pkg-config. It names one module
// only; scripts/check-consumers compares what it prints, so in each way of linking all the modules must be there.
#include "Mox/Cell.h"
#include "Vel/describe/Module.h"

#include <iostream>

int main() {
    std::cout << "active cell " << Cell::activeCellId() << '\n';
    std::cout << Vel::Registry::modules().size() << " modules, " << Vel::Registry::types().size() << " types\n";
    return Vel::Registry::refusals().empty() ? 0 : 1;
}
