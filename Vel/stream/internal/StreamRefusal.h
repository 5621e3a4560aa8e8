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

// The message `refused` carries a text alone. So the sentences that mean something to a program stand in one table:
// whoever refuses writes them from it, and whoever is refused finds them in it again.

// The sentence of this fault, with what it is about. REQUIRES: it has one: nothingThere, noSuchModule or otherVersion.
VEL_API StreamRefusal refusalOf(StreamFault fault, String const& about);
// Which fault's sentence the text is; `other` for one of none.
VEL_API StreamFault faultOf(std::string_view text);

// A message is refused, for a reason that has a code.
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
