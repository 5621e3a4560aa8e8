#pragma once

#include "Vel/base/Types.h"

#include <sstream>

namespace Vel {

// Writes an explanation of a failed assertion, before assertionFailed() aborts the process:
//
//     { Vel::SassertHelper helper("id < size()"); helper.stream() << "id " << id << " exceeds limit of " << size(); }
//     Vel::assertionFailed("id < size()", "/src/Mox/IdSet", 0, "bool Mox::IdSet::id(Mox::Id) const");
//
// The destructor writes "Assertion CONDITION failed: MESSAGE" to standard error.
class VEL_API SassertHelper {
public:
    explicit SassertHelper(char const* condition) : condition_(condition) {}
    SassertHelper(SassertHelper const&) = delete;
    SassertHelper& operator=(SassertHelper const&) = delete;
    ~SassertHelper();

    std::ostream& stream() { return message_; }

private:
    char const* condition_;
    std::ostringstream message_;
};

// Calls the C library's assertion failure, which prints the four arguments and aborts. NDEBUG has no effect. The
// callers pass fixed texts, the same under every compiler, so that a failure reported by a user can be found by search.
[[noreturn]] VEL_API VEL_COLD void assertionFailed(
    char const* condition, char const* source, unsigned line, char const* function);

}  // namespace Vel
