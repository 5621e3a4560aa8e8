#include "Vel/base/Assert.h"

#undef NDEBUG  // which hides the declaration of the function that fails
#include <cassert>
#include <string>

#include <unistd.h>

namespace Vel {

SassertHelper::~SassertHelper() {
    std::string const text = std::string("Assertion ") + condition_ + " failed: " + message_.str() + "\n";
    // Straight to the descriptor: buffers of the process may not be trusted any more. Nothing can be done if it fails.
    [[maybe_unused]] auto const written = ::write(STDERR_FILENO, text.data(), text.size());
}

void assertionFailed(char const* condition, char const* source, unsigned line, char const* function) {
    __assert_fail(condition, source, line, function);
}

}  // namespace Vel
