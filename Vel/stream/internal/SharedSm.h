#pragma once

#include "Vel/text/OutSm.h"

#include <vector>

namespace Vel::NboAttrLog {

// Messages for several outputs. Each is encoded once. Messages wait, so that several are copied to the outputs at once.
class VEL_API SharedSm final : public OutSm {
public:
    ~SharedSm() override;

    std::vector<OutSm*> const& targets() const { return targets_; }
    void targetIs(OutSm& target) { targets_.push_back(&target); }  // adds an output. REQUIRES: waiting() == 0
    void targetsDel();                                             // calls giveOut() first
    std::size_t waiting() const { return committed_; }             // bytes
    void giveOut();

private:
    Out& room(std::size_t size) override;
    void committed(std::size_t size, std::size_t messages) override;

    std::vector<OutSm*> targets_;
    Out out_;
    std::size_t committed_ = 0;  // bytes of complete messages in out_
    std::size_t messages_ = 0;   // number of these messages
};

}  // namespace Vel::NboAttrLog
