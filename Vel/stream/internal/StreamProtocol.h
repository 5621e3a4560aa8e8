#pragma once

#include "Vel/text/NboAttrLog.h"

namespace Vel {

// The first two items of a hello.
inline constexpr U32 streamMagic = 0x56454C41;  // "VELA"
inline constexpr U16 streamVersion = 1;

}  // namespace Vel
