#pragma once

// Includes all public headers of the library.
#include "Mox/Cell.h"
#include "Mox/CellSource.h"
#include "Mox/ChipSet.h"
#include "Mox/ChipSetIter.h"
#include "Mox/Events.h"
#include "Mox/GenTime.h"
#include "Mox/Generation.h"
#include "Mox/IdSet.h"
#include "Mox/MaybeTypes.h"
#include "Mox/PrefixTrie.h"
#include "Mox/Seqno.h"
#include "Mox/Statistics.h"
#include "Mox/TristateTypes.h"
#include "Mox/UniqueId.h"
