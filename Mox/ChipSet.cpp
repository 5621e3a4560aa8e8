#include "Mox/ChipSet.h"

#include "Vel/describe/Module.h"

namespace Mox {

void ChipId::fail() {
    Vel::throwRangeException("Mox::ChipId::value < Mox::ChipId::min or > Mox::ChipId::null not allowed");
}

void ChipSet::failChipIdIs() {
    Vel::assertionFailed("chipId.value() <= ChipId::max() || chipId.value() == ChipId::allChips()", "/src/Mox/ChipSet",
        51, "void Mox::ChipSet::chipIdIs(Mox::ChipId, bool) &");
}

}  // namespace Mox

VEL_MODULE(ChipSet, 14c860e7e8124928, Mox::ChipId, Mox::ChipSet);
