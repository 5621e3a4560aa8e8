#include "Vel/stream/internal/RemoteWrite.h"

#include "Vel/base/Exception.h"
#include "Vel/entity/ObserverFailure.h"

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

// Takes the encoding of one value, of an attribute or of a key.
class OneValue final : public NboAttrLog::SerializeSink, public NboAttrLog::OutSm {
public:
    std::span<U8 const> bytes() const { return NboAttrLog::messageBody(out_.bytes()); }

private:
    bool doMessageMulticast(AttributeId) override { return false; }
    OutSm* singletonSerializeCheck(AttributeId, NboAttrLog::FlowConnection*, bool, std::size_t size, bool) override {
        begin(NboAttrLog::MessageKind::value, size);
        return this;
    }
    Out& room(std::size_t) override { return out_; }

    Out out_;
};

String wordsOf(std::exception const& error) {
    auto const* const ours = dynamic_cast<Exception const*>(&error);
    return ours ? ours->text() : String(error.what());
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
        if (expectsValue_) expected_ = nextValue(body);
    }
    if (!has(ops, WriteOp::del)) value_ = nextValue(body);
    if (body.left() != 0) throw StreamException("a message with bytes behind its end", body.offset());
}

std::span<U8 const> RemoteWrite::nextValue(In& body) const {
    U8 const* const begin = body.data();
    GenericValue const read(attribute_.type(), body);
    return {begin, body.data()};
}

WriteAnswer RemoteWrite::apply() const {
    ObserverFailure const observers(adapter_.entity());
    try {
        if (has(ops_, WriteOp::expected)) {
            std::optional<GenericValue> current = this->current();
            if (!isAsExpected(current)) return {WriteResult::differs, {}, std::move(current)};
        }
        change();
        return {WriteResult::done};
    } catch (std::exception const& error) {
        return {observers.isHandled() ? WriteResult::observerFailed : WriteResult::rejected, wordsOf(error)};
    } catch (...) {
        return {observers.isHandled() ? WriteResult::observerFailed : WriteResult::rejected, "an unknown exception"};
    }
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
