#include "Vel/stream/internal/ReplicaWrites.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/StreamTable.h"
#include "Vel/text/PeerText.h"

#include <utility>

namespace Vel {

using NboAttrLog::In;

namespace {

// Returns one of the attributes whose values were to change together, by its number at the source.
StreamAttribute const& attributeOf(StreamTable const& table, AttributeId id, In const& body) {
    StreamAttribute const* const attribute = table.find(id);
    if (attribute && attribute->kind == StreamKind::value) return *attribute;
    throw StreamException(format("an answer about attribute %u, which is no value", id), body.offset());
}

}  // namespace

WriteAnswer ReplicaWrites::nextAnswer(Pending const& pending, In& body) {
    VelType type = pending.type;
    U8 const result = body.nextU8();
    if (result >= static_cast<U8>(WriteResult::unknown))
        throw StreamException(format("no answer to a change is %u", result), body.offset());
    WriteAnswer answer{static_cast<WriteResult>(result)};
    bool const differs = answer.result == WriteResult::differs;
    if (pending.table && (differs || answer.result == WriteResult::rejected)) {
        StreamAttribute const& attribute = attributeOf(*pending.table, NboAttrLog::nextCompact(body), body);
        answer.attribute = attribute.localId;
        type = attribute.type();
    }
    if (!differs && answer.result != WriteResult::done) answer.text = peerText(body.nextString().view(), longestText);
    bool const hasValue = differs ? body.nextbool() : pending.asked == Asked::call && type && answer.hasChanged();
    if (hasValue) {
        if (!type) throw StreamException("the value of a call that returns nothing", body.offset());
        answer.value.emplace(type, body);
    }
    if (body.left() != 0) throw StreamException("a message with bytes behind its end", body.offset());
    return answer;
}

U32 ReplicaWrites::add(Pending pending) {
    pending_.push_back(std::move(pending));
    return next_++;
}

void ReplicaWrites::answer(In& body) {
    U32 const number = NboAttrLog::nextCompact(body);
    if (pending_.empty() || pending_.front().number != number)
        throw StreamException(format("an answer to change %u, which does not wait for one", number), 0);
    WriteAnswer const answer = nextAnswer(pending_.front(), body);
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
