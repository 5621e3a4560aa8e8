#include "Vel/text/OutSm.h"

#include "Vel/base/Exception.h"

#include <limits>

namespace Vel::NboAttrLog {

OutSm::~OutSm() = default;
BufferSm::~BufferSm() = default;

Out& OutSm::begin(MessageKind kind, std::size_t bodySize) {
    abandon();
    std::size_t const lengthSize = compactSize(static_cast<U32>(1 + bodySize));
    Out& out = room(lengthSize + 1 + bodySize);
    start_ = out.size();
    lengthSize_ = lengthSize;
    out.append(lengthSize + 1)[lengthSize] = static_cast<U8>(kind);
    out_ = &out;
    return out;
}

void OutSm::commit() {
    Out& out = *std::exchange(out_, nullptr);
    std::size_t const length = out.size() - start_ - lengthSize_;
    std::size_t const needed = compactSize(static_cast<U32>(length));
    if (needed > lengthSize_) [[unlikely]] {  // the body is longer than begin() was told
        out.append(needed - lengthSize_);
        U8* const start = const_cast<U8*>(out.data()) + start_;
        std::memmove(start + needed, start + lengthSize_, length);
        lengthSize_ = needed;
    }
    storeCompact(const_cast<U8*>(out.data()) + start_, static_cast<U32>(length), lengthSize_);
    committed(out.size() - start_, 1);
}

void OutSm::addMessages(std::span<U8 const> messages, std::size_t count) {
    std::memcpy(room(messages.size()).append(messages.size()), messages.data(), messages.size());
    committed(messages.size(), count);
}

U32 nextCompact(In& in) {
    if (in.left() == 0) in.nextU8();  // throws
    switch (*in.data() >> 6) {
    case 0:
        return in.nextU8();
    case 1:
        return in.nextU16() & 0x3FFFu;
    case 2:
        return in.nextU32() & 0x3FFFFFFFu;
    default:
        break;
    }
    std::size_t const offset = in.offset();
    U64 const number = in.nextU64() & 0x3FFFFFFFFFFFFFFFu;
    if (number > std::numeric_limits<U32>::max()) throw StreamException("a number of more than 32 bits", offset);
    return static_cast<U32>(number);
}

void BufferSm::compact(std::size_t kept) {
    if (taken_ >= size()) {
        out_.drop(taken_);
        taken_ = 0;
    }
    if (taken_ != 0 || out_.capacity() <= kept || out_.size() > kept / 2) return;
    Out const all = std::exchange(out_, Out());
    add(all.bytes());
}

void BufferSm::add(std::span<U8 const> bytes) {
    if (!bytes.empty()) std::memcpy(out_.append(bytes.size()), bytes.data(), bytes.size());
}

}  // namespace Vel::NboAttrLog
