#pragma once

#include "Vel/entity/Entity.h"

// Replaces the platform's redundancy library. It has only the entity that the redundancy service publishes for each
// cell, at /<system>/Zendb/cell/<cell id>/redundancy/status in the state database.
namespace Redundancy {

class VEL_API RedundancyStatus : public Vel::EntityOf<RedundancyStatus> {
public:
    static constexpr Vel::U32 unknownCell = 0xFFFFFFFFu;

    explicit RedundancyStatus(Vel::String const& name);
    ~RedundancyStatus() override;

    Vel::U32 activeCellId() const { return activeCellId_; }  // unknownCell if the service does not know it
    void activeCellIdIs(Vel::U32 cellId) const { velSet<&RedundancyStatus::activeCellId_>(cellId); }

    static constexpr auto description() {
        return Vel::entity("Redundancy::RedundancyStatus",
            Vel::attribute<&RedundancyStatus::activeCellId_, &RedundancyStatus::activeCellId,
                &RedundancyStatus::activeCellIdIs>("activeCellId"));
    }

private:
    Vel::U32 activeCellId_ = unknownCell;
};

VEL_API Vel::Ptr<RedundancyStatus> redundancyStatusFactory(Vel::String const& name);

}  // namespace Redundancy
