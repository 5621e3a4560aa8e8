#include "Vel/text/NboAttrLog.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <utility>

namespace Vel::NboAttrLog {

Out::Out(Out&& other) noexcept
    : begin_(std::exchange(other.begin_, nullptr)),
      at_(std::exchange(other.at_, nullptr)),
      end_(std::exchange(other.end_, nullptr)) {}

Out& Out::operator=(Out&& other) noexcept {
    std::swap(begin_, other.begin_);
    std::swap(at_, other.at_);
    std::swap(end_, other.end_);
    return *this;
}

Out::~Out() { std::free(begin_); }

void Out::drop(std::size_t count) {
    if (count == 0) return;
    std::size_t const left = size() - count;
    std::memmove(begin_, begin_ + count, left);
    at_ = begin_ + left;
}

void Out::release() {
    std::free(begin_);
    begin_ = at_ = end_ = nullptr;
}

void Out::grow(std::size_t more) {
    std::size_t const used = size();
    if (more > SIZE_MAX / 2 - used) throw std::bad_alloc();
    std::size_t const wanted = std::max<std::size_t>({64, 2 * capacity(), used + more});
    auto* const bytes = static_cast<U8*>(std::realloc(begin_, wanted));
    if (!bytes) throw std::bad_alloc();
    begin_ = bytes;
    at_ = bytes + used;
    end_ = bytes + wanted;
}

String In::nextString() {
    need(4, "the length of a Vel::String");
    std::size_t const length = load<U32>(at_);
    if (left() - 4 < length) failTruncated(4 + length, "Vel::String");
    String result(reinterpret_cast<char const*>(at_ + 4), length);
    at_ += 4 + length;
    return result;
}

EntityId In::peekEntityId() {
    need(sizeof(EntityId), "entity id");
    return load<EntityId>(at_);
}

Entity* In::nextEntity() {
    EntityId const id = peekEntityId();
    Entity* const entity = id && resolver_ ? resolver_->entity(id) : nullptr;
    if (id && !entity)
        throw StreamException(format("entity id %u at offset %zu names no entity", id, offset()), offset());
    at_ += sizeof(EntityId);
    return entity;
}

void In::failTruncated(std::size_t size, char const* what) const {
    throw StreamException(format("the attribute log ends within %s at offset %zu: %zu bytes needed, %zu left", what,
                              offset(), size, left()),
        offset());
}

void In::failBool() const {
    throw StreamException(
        format("the bool at offset %zu is %u, and neither 0 nor 1", offset(), unsigned(*at_)), offset());
}

void failWithAttrLogValueCollectionDefaultKey() {
    throw StreamException("a collection holds the key that ends it in the attribute log", 0);
}

void failWithAttrLogValueCollectionDuplicateKey() {
    throw StreamException("a key of a collection comes twice in the attribute log", 0);
}

}  // namespace Vel::NboAttrLog
