#include "tools/lib/StandardFiles.h"

#include <fcntl.h>
#include <unistd.h>

namespace Tool {

namespace {

bool wasOutputClosed_ = false;

}  // namespace

void openStandardFiles() {
    constexpr int modes[] = {O_WRONLY, O_RDONLY, O_WRONLY};
    for (int file = STDIN_FILENO; file <= STDERR_FILENO; ++file) {
        if (::fcntl(file, F_GETFD) >= 0) continue;
        [[maybe_unused]] int const opened = ::open("/dev/null", modes[file]);  // gets the lowest free number: `file`
        if (file == STDOUT_FILENO) wasOutputClosed_ = true;
    }
}

bool wasOutputClosed() { return wasOutputClosed_; }

}  // namespace Tool
