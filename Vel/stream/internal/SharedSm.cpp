#include "Vel/stream/internal/SharedSm.h"

namespace Vel::NboAttrLog {

namespace {

constexpr std::size_t kept = 64u << 10;  // bytes of memory, from one message to the next

}  // namespace

SharedSm::~SharedSm() = default;

Out& SharedSm::room(std::size_t size) {
    message_.clear();
    message_.reserve(size);
    return message_;
}

void SharedSm::committed(std::size_t) {
    for (OutSm* const target : targets_) target->addMessage(message_.bytes());
    if (message_.capacity() > kept) message_.release();
}

}  // namespace Vel::NboAttrLog
