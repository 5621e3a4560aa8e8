#include "Vel/stream/internal/ReplicaWrites.h"

#include "Vel/base/Exception.h"
#include "Vel/text/PeerText.h"

#include <utility>

namespace Vel {

using NboAttrLog::In;

namespace {

WriteAnswer nextAnswer(VelType type, In& body) {
    U8 const result = body.nextU8();
    if (result >= static_cast<U8>(WriteResult::unknown))
        throw StreamException(format("no answer to a change is %u", result), body.offset());
    WriteAnswer answer{static_cast<WriteResult>(result)};
    if (answer.result == WriteResult::differs) {
        if (body.nextbool()) answer.value.emplace(type, body);
    } else if (answer.result != WriteResult::done) {
        answer.text = peerText(body.nextString().view(), ReplicaWrites::longestText);
    }
    if (body.left() != 0) throw StreamException("a message with bytes behind its end", body.offset());
    return answer;
}

}  // namespace

U32 ReplicaWrites::add(VelType type, WriteTold told) {
    pending_.push_back({next_, type, std::move(told)});
    return next_++;
}

void ReplicaWrites::answer(In& body) {
    U32 const number = NboAttrLog::nextCompact(body);
    if (pending_.empty() || pending_.front().number != number)
        throw StreamException(format("an answer to change %u, which does not wait for one", number), 0);
    WriteAnswer const answer = nextAnswer(pending_.front().type, body);
    WriteTold const told = std::move(pending_.front().told);
    pending_.pop_front();
    if (told) told(answer);
}

void ReplicaWrites::lost() {
    next_ = 0;
    for (Pending const& pending : std::exchange(pending_, {}))
        if (pending.told) pending.told({WriteResult::unknown, "the connection has ended before the answer came"});
}

}  // namespace Vel
