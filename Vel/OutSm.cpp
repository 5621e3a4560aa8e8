#include "Vel/OutSm.h"

#include <utility>

namespace Vel::NboAttrLog {

OutSm::~OutSm() = default;
BufferSm::~BufferSm() = default;

Out& OutSm::begin(MessageKind kind, std::size_t bodySize) {
    if (out_) std::exchange(out_, nullptr)->sizeIs(start_);
    Out& out = room(messageHeaderSize + bodySize);
    start_ = out.size();
    store(out.append(messageHeaderSize), U32(0));
    const_cast<U8*>(out.data())[start_ + 4] = static_cast<U8>(kind);
    out_ = &out;
    return out;
}

void OutSm::commit() {
    Out& out = *std::exchange(out_, nullptr);
    std::size_t const size = out.size() - start_;
    store(const_cast<U8*>(out.data()) + start_, static_cast<U32>(size - 4));
    committed(size);
}

void BufferSm::add(std::span<U8 const> bytes) {
    if (!bytes.empty()) std::memcpy(out_.append(bytes.size()), bytes.data(), bytes.size());
}

}  // namespace Vel::NboAttrLog
