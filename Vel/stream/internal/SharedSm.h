#pragma once

#include "Vel/text/OutSm.h"

#include <vector>

namespace Vel::NboAttrLog {

// Messages that several outputs get. Each is encoded once, and waits, so that what comes in a row is copied to all of
// them at one go.
class VEL_API SharedSm final : public OutSm {
public:
    ~SharedSm() override;

    std::vector<OutSm*> const& targets() const { return targets_; }
    void targetIs(OutSm& target) { targets_.push_back(&target); }  // one more. REQUIRES: waiting() == 0
    void targetsDel();                                             // gives out what waits first
    std::size_t waiting() const { return committed_; }             // bytes
    void giveOut();

private:
    Out& room(std::size_t size) override;
    void committed(std::size_t size, std::size_t messages) override;

    std::vector<OutSm*> targets_;
    Out out_;
    std::size_t committed_ = 0;  // bytes of it
    std::size_t messages_ = 0;   // that these are
};

}  // namespace Vel::NboAttrLog
