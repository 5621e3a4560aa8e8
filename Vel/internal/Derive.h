#pragma once

#include "Vel/internal/DeriveFingerprint.h"
#include "Vel/internal/DeriveGlue.h"
#include "Vel/internal/DeriveStream.h"
#include "Vel/internal/DeriveTable.h"
#include "Vel/internal/DeriveText.h"

// What VEL_MODULE derives from descriptions: the text form, the glue, the table and its fingerprint.
