#include "Vel/stream/internal/RemoteGroup.h"

#include "Vel/base/Exception.h"
#include "Vel/stream/internal/OneValue.h"
#include "Vel/stream/internal/StreamProtocol.h"

#include <algorithm>

namespace Vel {

using NboAttrLog::In;
using NboAttrLog::Out;

RemoteGroup::RemoteGroup(StreamAdapter& adapter, In& body)
    : entity_(adapter.entity()), group_(adapter.entity(), adapter.table()) {
    do {
        U8 const ops = body.nextU8();
        StreamAttribute const& attribute = group_.nextAttribute(body);
        if (ops != 0 && ops != static_cast<U8>(WriteOp::expected))
            throw StreamException(format("no value of several is changed by %u", ops), body.offset());
        if (ops != 0) expected_.push_back({attribute, nextValueOf(attribute.type(), body)});
        group_.nextValue(body);
    } while (body.left() != 0);
}

WriteAnswer RemoteGroup::apply() {
    if (std::optional<WriteAnswer> different = difference()) return std::move(*different);
    try {
        group_.set();
        return {WriteResult::done};
    } catch (...) {
        StreamAttribute const* const rejected = group_.rejected();
        isUntold_ = !rejected || group_.isChangedByRejected();
        return {rejected ? WriteResult::rejected : WriteResult::observerFailed, wordsOfHandled(), {},
            rejected ? rejected->id : 0};
    }
}

std::size_t RemoteGroup::note(WriteHistory& history, String const& author) const {
    std::size_t count = 0;
    group_.each([&](StreamAttribute const& attribute, std::span<U8 const> value) {
        U64 const number = history.asked(entity_, attribute.id, author);
        history.beforeIs(number, attribute, entity_);
        history.wantedIs(number, value);
        ++count;
    });
    return count;
}

// Compares encodings, since not every type has an equality.
std::optional<WriteAnswer> RemoteGroup::difference() const {
    for (Expected const& expected : expected_) {
        Out now;
        writeStored(now, expected.attribute, entity_);
        if (std::ranges::equal(now.bytes(), expected.value)) continue;
        In in(now.bytes());
        return WriteAnswer{
            WriteResult::differs, {}, GenericValue(expected.attribute.type(), in), expected.attribute.id};
    }
    return std::nullopt;
}

}  // namespace Vel
