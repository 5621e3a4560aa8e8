#include "Mox/TristateTypes.h"

#include "Vel/describe/Module.h"

namespace Mox::Detail {

String tristateText(bool value) { return value ? "true" : "false"; }
String tristateText(U64 value) { return Vel::unsignedToStrep(value); }
String tristateText(F64 value) { return Vel::format("%lf", value); }

}  // namespace Mox::Detail

VEL_MODULE(TristateTypes, 104cc86953bb2461, Mox::TristateBoolean, Mox::TristateString, Mox::TristateF64,
    Mox::TristateU8, Mox::TristateU16, Mox::TristateU32, Mox::TristateU64);
