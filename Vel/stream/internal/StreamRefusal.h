#pragma once

#include "Vel/base/Exception.h"
#include "Vel/stream/StreamPeer.h"

#include <string_view>

namespace Vel {

// Why one side refuses the other, as a code and in words.
struct StreamRefusal {
    StreamFault fault = StreamFault::other;
    String text{};
};

// The message `refused` has a text only. So the sentences that mean something to a program are in one table: one side
// makes the text from it, and the other side finds the text in it.

// Returns the sentence of the fault, with `about` in it. REQUIRES: the fault is nothingThere, noSuchModule or
// otherVersion.
VEL_API StreamRefusal refusalOf(StreamFault fault, String const& about);
// Returns the fault whose sentence the text is, or `other` if it is no such sentence.
VEL_API StreamFault faultOf(std::string_view text);

// Thrown when a message is refused for a reason that has a code.
class VEL_API StreamRefusalException final : public StreamException {
public:
    explicit StreamRefusalException(StreamRefusal refusal)
        : StreamException(std::move(refusal.text), 0), fault_(refusal.fault) {}
    ~StreamRefusalException() override;

    StreamFault fault() const noexcept { return fault_; }

private:
    StreamFault fault_;
};

}  // namespace Vel
