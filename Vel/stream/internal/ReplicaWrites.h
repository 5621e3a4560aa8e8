#pragma once

#include "Vel/stream/StreamWrite.h"
#include "Vel/text/OutSm.h"

#include <deque>

namespace Vel {

// The changes that a reader has asked for in a connection and that are not answered yet. The source answers them in
// their order.
class VEL_API ReplicaWrites {
public:
    static constexpr std::size_t most = 4096;         // at one time; a source takes no more
    static constexpr std::size_t longestText = 1024;  // bytes of a mutator's words in an answer

    // Returns the number of the new change. `type` is that of the values. REQUIRES: size() < most
    U32 add(VelType type, WriteTold told);
    std::size_t size() const { return pending_.size(); }

    void answer(NboAttrLog::In& body);  // tells the oldest. Throws StreamException, or what is told throws
    void lost();                        // tells all of them that their answer will not come

private:
    struct Pending {
        U32 number;
        VelType type;
        WriteTold told;
    };
    std::deque<Pending> pending_;
    U32 next_ = 0;
};

}  // namespace Vel
