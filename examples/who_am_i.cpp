// Asks which cell this process runs on, and which one is active.
//
//     $ CELLID=1 ACTIVE_CELLID=2 who_am_i
#include "Mox/Cell.h"

#include "Vel/base/Exception.h"

#include <iostream>

int main() {
    try {
        std::cout << "cell " << Cell::cellId() << " (" << Cell::cellType() << ") of product " << Cell::product()
                  << ", active is cell " << Cell::activeCellId() << '\n';
        std::cout << "election manager " << (Cell::electionMgrSupported() ? "arbitrates" : "absent")
                  << ", CPU/BMC mode " << (Cell::cpuBmcMode() ? "on" : "off") << '\n';
        std::cout << "state of this cell is at " << Cell::path("redundancy/status", 0) << '\n';
    } catch (Vel::Exception const& error) {  // a variable or file holds a wrong text, or cannot be read
        std::cerr << "who_am_i: " << error.what() << '\n';
        return 1;
    }
}
