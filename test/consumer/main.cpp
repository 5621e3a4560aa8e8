// A user's program: built and run against the installed package, the subdirectory and pkg-config.
#include "Mox/Cell.h"

#include <iostream>

int main() { std::cout << "active cell " << Cell::activeCellId() << '\n'; }
