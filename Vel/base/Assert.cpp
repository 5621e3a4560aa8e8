#include "Vel/base/Assert.h"

#undef NDEBUG  // or <cassert> does not declare __assert_fail()
#include <cassert>
#include <string>

#include <unistd.h>

namespace Vel {

SassertHelper::~SassertHelper() {
    std::string const text = std::string("Assertion ") + condition_ + " failed: " + message_.str() + "\n";
    // Writes to the descriptor, since the process's own buffers may be corrupt. A failure can't be handled.
    [[maybe_unused]] auto const written = ::write(STDERR_FILENO, text.data(), text.size());
}

void assertionFailed(char const* condition, char const* source, unsigned line, char const* function) {
    __assert_fail(condition, source, line, function);
}

}  // namespace Vel
