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

    enum class Asked : U8 { value, values, call };

    // Return the number of the new change. `type` is that of the value, or of the result of a call, which may be null.
    // If several values change, `table` has the attributes; it must stay until the answer has come. REQUIRES: size() <
    // most
    U32 add(Asked asked, VelType type, WriteTold told) { return add({next_, asked, type, nullptr, std::move(told)}); }
    U32 add(StreamTable const& table, WriteTold told) {
        return add({next_, Asked::values, {}, &table, std::move(told)});
    }
    std::size_t size() const { return pending_.size(); }

    void answer(NboAttrLog::In& body);  // tells the oldest. Throws StreamException, or what is told throws
    void lost();                        // tells all of them that their answer will not come

private:
    struct Pending {
        U32 number;
        Asked asked;
        VelType type;
        StreamTable const* table;
        WriteTold told;
    };
    U32 add(Pending pending);
    static WriteAnswer nextAnswer(Pending const& pending, NboAttrLog::In& body);
    std::deque<Pending> pending_;
    U32 next_ = 0;
};

}  // namespace Vel
