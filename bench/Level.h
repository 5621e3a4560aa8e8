#pragma once

#include "Vel/entity/Entity.h"

// An entity and an observer for the benchmarks of what follows a change. Each program registers Level in its module.
namespace Bench {

class Level : public Vel::EntityOf<Level> {
public:
    explicit Level(Vel::String const& name) : EntityOf(name) {}

    Vel::U32 level() const { return level_; }
    void levelIs(Vel::U32 v) { velSet<&Level::level_>(v); }

    static constexpr auto description() {
        return Vel::entity("Bench::Level", Vel::attribute<&Level::level_, &Level::level, &Level::levelIs>("level"));
    }

private:
    Vel::U32 level_ = 0;
};

class Counter final : public Vel::Notifiee {
public:
    void handleAttribute(Vel::AttributeId) override { ++count; }
    std::size_t count = 0;
};

}  // namespace Bench
