#include <cstdlib>

namespace {

// Also where the tests are run by hand, at a terminal.
[[maybe_unused]] int const noColour = ::setenv("NO_COLOR", "1", 1);

}  // namespace
