#include "Vel/stream/StreamWrite.h"

#include "Vel/base/Exception.h"
#include "Vel/stream/internal/StreamProtocol.h"

namespace Vel {

char const* writeResultName(WriteResult result) {
    constexpr char const* names[] = {"done", "observer failed", "rejected", "differs", "read-only", "gone", "unknown"};
    return result <= lastWriteResult ? names[static_cast<std::size_t>(result)] : "?";
}

String wordsOfHandled() {
    try {
        throw;
    } catch (Exception const& error) {
        return error.text();
    } catch (std::exception const& error) {
        return error.what();
    } catch (...) {
        return "an unknown exception";
    }
}

}  // namespace Vel
