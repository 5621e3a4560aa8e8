#pragma once

#include "Vel/entity/Entity.h"

namespace Own {

class VEL_API Gauge : public Vel::EntityOf<Gauge> {
public:
    explicit Gauge(Vel::String const& name) : EntityOf(name) {}

    Vel::U32 level() const { return level_; }
    void levelIs(Vel::U32 v) const { velSet<&Gauge::level_>(v); }

    static constexpr auto description() {
        return Vel::entity("Own::Gauge", Vel::attribute<&Gauge::level_, &Gauge::level, &Gauge::levelIs>("level"));
    }

private:
    Vel::U32 level_ = 0;
};

}  // namespace Own
