#pragma once

#include "Vel/describe/internal/DeriveFingerprint.h"
#include "Vel/describe/internal/DeriveGlue.h"
#include "Vel/describe/internal/DeriveStream.h"
#include "Vel/describe/internal/DeriveTable.h"
#include "Vel/describe/internal/DeriveText.h"

// Includes all that VEL_MODULE derives from descriptions: the text form, the glue, the stream tables, the module's
// table and its fingerprint.
