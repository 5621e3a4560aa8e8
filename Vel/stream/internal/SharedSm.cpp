#include "Vel/stream/internal/SharedSm.h"

namespace Vel::NboAttrLog {

namespace {

constexpr std::size_t kept = 64u << 10;  // bytes of memory that stay when nothing waits

}  // namespace

SharedSm::~SharedSm() = default;

void SharedSm::targetsDel() {
    giveOut();
    targets_.clear();
}

void SharedSm::giveOut() {
    abandon();
    if (committed_ == 0) return;
    for (OutSm* const target : targets_) target->addMessages(out_.bytes(), messages_);
    committed_ = messages_ = 0;
    out_.clear();
    if (out_.capacity() > kept) out_.release();
}

Out& SharedSm::room(std::size_t size) {
    out_.reserve(size);
    return out_;
}

void SharedSm::committed(std::size_t size, std::size_t messages) {
    committed_ += size;
    messages_ += messages;
}

}  // namespace Vel::NboAttrLog
