#include "Vel/stream/StreamWrite.h"

namespace Vel {

char const* writeResultName(WriteResult result) {
    constexpr char const* names[] = {"done", "observer failed", "rejected", "differs", "read-only", "gone", "unknown"};
    return result <= lastWriteResult ? names[static_cast<std::size_t>(result)] : "?";
}

}  // namespace Vel
