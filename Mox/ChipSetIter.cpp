#include "Mox/ChipSetIter.h"

#include <ios>

namespace Mox {

namespace {

std::ios_base::Init streams;  // as in every module, so that initialisers of its users may use the standard streams

}  // namespace

void ChipSetIter::fail(unsigned line, char const* function) {
    Vel::assertionFailed("inRange()", "/src/Mox/ChipSetIter", line, function);
}

}  // namespace Mox
