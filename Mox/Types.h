#pragma once

#include "Vel/describe/Value.h"

// The framework's names that every header of this library uses.
namespace Mox {

using Vel::F64;
using Vel::Seconds;
using Vel::String;
using Vel::U1;
using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;

using Vel::attrLogSize;
using Vel::valueToStrep;
using Vel::operator<<;

using StrepIterator = Vel::String::IteratorConst;
using LogIn = Vel::NboAttrLog::In;
using Vel::StreamBogon;

}  // namespace Mox
