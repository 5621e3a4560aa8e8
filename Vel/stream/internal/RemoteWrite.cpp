#include "Vel/stream/internal/RemoteWrite.h"

#include "Vel/base/Exception.h"
#include "Vel/stream/internal/OneValue.h"

#include <algorithm>

namespace Vel {

using NboAttrLog::In;
using NboAttrLog::Out;

namespace {

StreamAttribute const& valueAttribute(StreamAdapter const& adapter, AttributeId id, In const& in) {
    StreamAttribute const* const attribute = adapter.table().find(id);
    if (attribute && (attribute->kind == StreamKind::value || attribute->kind == StreamKind::values)) return *attribute;
    throw StreamException(format("%s has no value attribute %u", adapter.entity().fwkType().name(), id), in.offset());
}

}  // namespace

RemoteWrite::RemoteWrite(StreamAdapter& adapter, U8 ops, In& body)
    : adapter_(adapter), attribute_(valueAttribute(adapter, NboAttrLog::nextCompact(body), body)), ops_(ops) {
    if (ops > writeOps || (has(ops, WriteOp::del) && !isKey()))
        throw StreamException(format("no value attribute is changed by %u", ops), body.offset());
    if (isKey()) {
        U8 const* const begin = body.data();
        attribute_.skipKey(body);
        key_ = {begin, body.data()};
    }
    if (has(ops, WriteOp::expected)) {
        expectsValue_ = body.nextbool();
        if (expectsValue_) expected_ = nextValueOf(attribute_.type(), body);
    }
    if (!has(ops, WriteOp::del)) value_ = nextValueOf(attribute_.type(), body);
    if (body.left() != 0) throw StreamException("a message with bytes behind its end", body.offset());
}

WriteAnswer RemoteWrite::apply() {
    ObserverFailure observers(adapter_.entity());
    WriteAnswer answer = applied(observers);
    untold_ = observers.takeUntold();
    return answer;
}

WriteAnswer RemoteWrite::applied(ObserverFailure const& observers) {
    try {
        if (has(ops_, WriteOp::expected)) {
            std::optional<GenericValue> current = this->current();
            if (!isAsExpected(current)) return {WriteResult::differs, {}, std::move(current)};
        }
        change();
        return {WriteResult::done};
    } catch (...) {
        return {observers.isHandled() ? WriteResult::observerFailed : WriteResult::rejected, wordsOfHandled()};
    }
}

std::size_t RemoteWrite::note(WriteHistory& history, String const& author) const {
    Entity const& entity = adapter_.entity();
    U64 const number = history.asked(entity, attribute_.id, author);
    if (isKey()) {
        history.keyIs(number, key_);
        history.beforeIs(number, attribute_, entity, key_);
    } else {
        history.beforeIs(number, attribute_, entity);
    }
    if (!has(ops_, WriteOp::del)) history.wantedIs(number, value_);
    return 1;
}

void RemoteWrite::change() const {
    In key(key_);
    In value(value_);
    Entity& entity = adapter_.entity();
    if (!isKey())
        adapter_.onAttributeForConnection(attribute_.id, value);
    else if (!has(ops_, WriteOp::del))
        attribute_.applyKey(entity, key, value);
    else if (In look(key_); attribute_.holds(entity, look))
        attribute_.memberDel(entity, key);
}

std::optional<GenericValue> RemoteWrite::current() const {
    OneValue value;
    if (isKey()) {
        if (In look(key_); !attribute_.holds(adapter_.entity(), look)) return std::nullopt;
        attribute_.serializeKey(value, attribute_.id, adapter_.entity(), key_, nullptr);
    } else {
        attribute_.serialize(value, attribute_.id, adapter_.entity(), nullptr);
    }
    In in(value.bytes().subspan(isKey() ? key_.size() : 0));
    return GenericValue(attribute_.type(), in);
}

// Compares encodings, since not every type has an equality.
bool RemoteWrite::isAsExpected(std::optional<GenericValue> const& current) const {
    if (!current || !expectsValue_) return !current && !expectsValue_;
    Out out;
    current->type().glue().write(out, current->data());
    return std::ranges::equal(out.bytes(), expected_);
}

}  // namespace Vel
