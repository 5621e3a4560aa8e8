#pragma once

#include "Vel/text/Trace.h"

namespace Cell {

extern Vel::TraceHandle traceHandle;

// Writes a trace record at level 0. The callers pass fixed line numbers and texts, so that people and scripts can
// search for them.
template <class... Parts> void trace(unsigned line, char const* function, Parts const&... parts) {
    if (!traceHandle.enabled(0)) [[likely]]
        return;
    Vel::TraceHelper helper(traceHandle, 0, "/src/Mox/Cell", line, function);
    (helper.stream() << ... << parts);
}

}  // namespace Cell
