#include "Mox/Seqno.h"

#include "Vel/describe/Module.h"

VEL_MODULE(Seqno, b10c04b51b44f4ab, Mox::Seqno16, Mox::Seqno32);
