// A user's program that links a library with a module of its own, and calls nothing in it: the module's types must be
// in the registry all the same, once.
#include "Vel/describe/Module.h"

#include <iostream>

int main() {
    Vel::VelType const gauge = Vel::Registry::type("Own::Gauge");
    std::cout << (gauge ? "found Own::Gauge" : "no Own::Gauge") << '\n';
    return gauge && Vel::Registry::refusals().empty() ? 0 : 1;
}
