#pragma once

#include "Vel/text/OutSm.h"

#include <vector>

namespace Vel::NboAttrLog {

// A message that several outputs get, encoded once.
class VEL_API SharedSm final : public OutSm {
public:
    ~SharedSm() override;

    void clear() { targets_.clear(); }
    void add(OutSm& target) { targets_.push_back(&target); }
    // Where to write what all of them get; null when there is none.
    OutSm* output() { return targets_.size() > 1 ? this : targets_.empty() ? nullptr : targets_.front(); }

private:
    Out& room(std::size_t size) override;
    void committed(std::size_t size) override;

    std::vector<OutSm*> targets_;
    Out message_;
};

}  // namespace Vel::NboAttrLog
