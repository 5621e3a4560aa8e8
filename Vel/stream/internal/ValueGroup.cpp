#include "Vel/stream/internal/ValueGroup.h"

#include "Vel/base/Exception.h"
#include "Vel/stream/internal/OneValue.h"

#include <algorithm>

namespace Vel {

using NboAttrLog::In;
using NboAttrLog::Out;

ValueGroup::ValueGroup(Entity& entity, StreamTable const& table) : entity_(entity), table_(table), held_(entity) {}

StreamAttribute const& ValueGroup::nextAttribute(In& body) {
    AttributeId const id = NboAttrLog::nextCompact(body);
    StreamAttribute const* const attribute = table_.find(id);
    if (!attribute || attribute->kind != StreamKind::value)
        throw StreamException(format("%s has no value attribute %u", entity_.fwkType().name(), id), body.offset());
    if (std::ranges::any_of(items_, [&](Item const& item) { return item.attribute == attribute; }))
        throw StreamException(format("the value of attribute %u comes twice", id), body.offset());
    items_.push_back({attribute});
    return *attribute;
}

void ValueGroup::nextValue(In& body) { items_.back().value = nextValueOf(items_.back().attribute->type(), body); }

void ValueGroup::nextSizedValue(In& body) {
    std::size_t const size = NboAttrLog::nextCompact(body);
    U8 const* const bytes = body.take(size);
    if (!bytes) throw StreamException(format("%zu bytes left for a value of %zu", body.left(), size), body.offset());
    In value({bytes, size});
    if (items_.back().attribute->skips) return items_.pop_back();
    nextValue(value);
    if (value.left() != 0) throw StreamException("a value with bytes behind its end", body.offset());
}

void ValueGroup::set() {
    for (Item& item : items_) writeStored(item.before, *item.attribute, entity_);
    try {
        for (Item const& item : items_) {
            rejected_ = item.attribute;
            In value(item.value);
            item.attribute->apply(entity_, value);
        }
        rejected_ = nullptr;
    } catch (...) {
        putBack();
        tellTheRest();
        throw;
    }
    held_.tell();
}

bool ValueGroup::isAsBefore(Item const& item) const {
    Out now;
    writeStored(now, *item.attribute, entity_);
    return std::ranges::equal(now.bytes(), item.before.bytes());
}

// Goes backwards, so that a mutator finds the other values as they were when it set its own. A mutator that throws may
// have set its value before, and so may one that throws now.
void ValueGroup::putBack() {
    for (auto item = items_.rbegin(); item != items_.rend(); ++item) {
        if (isAsBefore(*item)) continue;
        try {
            In before(item->before.bytes());
            item->attribute->apply(entity_, before);
        } catch (...) {}  // then its new value stays, and the observers are told of it
    }
}

void ValueGroup::tellTheRest() {
    held_.dropIf([&](HeldChanges::Change const& change) {
        return std::ranges::any_of(items_, [&](Item const& item) {
            return item.attribute->localId == change.attribute && !change.key && isAsBefore(item);
        });
    });
    try {
        held_.tell();
    } catch (...) {}  // what the mutator has thrown is the answer
}

}  // namespace Vel
