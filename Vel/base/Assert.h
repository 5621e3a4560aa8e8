#pragma once

#include "Vel/base/Types.h"

#include <sstream>

namespace Vel {

// Explains a failed assertion before it aborts the process:
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

// Fails through the C library's assertion failure, which prints these four and aborts; NDEBUG plays no part.
// The texts are fixed, and the same under every compiler, so that a report found in the field can be searched for.
[[noreturn]] VEL_API VEL_COLD void assertionFailed(
    char const* condition, char const* source, unsigned line, char const* function);

}  // namespace Vel
