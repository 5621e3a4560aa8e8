#pragma once

#include "Vel/base/Exception.h"
#include "Vel/entity/Together.h"

#include <stdexcept>

namespace StreamTest {

// A tank whose limits belong together. Mutators do not take everything.
class Tank : public Vel::EntityOf<Tank> {
public:
    explicit Tank(Vel::String const& name) : EntityOf(name) {}

    Vel::U32 low() const { return low_; }
    void lowIs(Vel::U32 v) {
        if (v == 101) throw Vel::RangeException("too low");
        velSet<&Tank::low_>(v);
        if (v == 102) throw Vel::RangeException("set, and yet not");
    }
    Vel::U32 high() const { return high_; }
    void highIs(Vel::U32 v) {
        if (isStuck && v < high_) throw Vel::RangeException("stuck");
        velSet<&Tank::high_>(v);
    }
    Vel::String label() const { return label_; }
    void labelIs(Vel::String const& v) {
        if (v == "full") return Vel::together(*this, [&] { lowIs(5), highIs(6); });
        velSet<&Tank::label_>(v);
        if (v == "counted") countIs(count_ + 1);
    }
    Vel::U32 count() const { return count_; }
    void countIs(Vel::U32 v) { velSet<&Tank::count_>(v); }
    Vel::Ptr<Tank> next() const { return next_; }
    void nextIs(Vel::Ptr<Tank> const& v) { velSet<&Tank::next_>(v); }

    // Methods.
    Vel::String limitsIs(Vel::U32 low, Vel::U32 high) {
        if (low > high) throw Vel::RangeException("the limits are the wrong way round");
        highIs(high);
        lowIs(low);
        return Vel::format("%u to %u", low, high);
    }
    void clear() {
        lowIs(0);
        highIs(0);
    }
    void breakDown() {
        lowIs(77);
        throw std::runtime_error("broken");
    }
    void join(Vel::Ptr<Tank> const& other) { nextIs(other); }
    Vel::Ptr<Tank> following() const { return next_; }

    static constexpr auto description() {
        using T = Tank;
        return Vel::entity("StreamTest::Tank", Vel::attribute<&T::low_, &T::low, &T::lowIs>("low"),
            Vel::attribute<&T::high_, &T::high, &T::highIs>("high"),
            Vel::attribute<&T::label_, &T::label, &T::labelIs>("label"),
            Vel::attribute<&T::count_, &T::count, &T::countIs>("count"),
            Vel::attribute<&T::next_, &T::next, &T::nextIs>("next"),
            Vel::method<&T::limitsIs>("limitsIs", "low", "high"), Vel::method<&T::clear>("clear"),
            Vel::method<&T::breakDown>("breakDown"), Vel::method<&T::join>("join", "other"),
            Vel::method<&T::following>("following"));
    }

    bool isStuck = false;

private:
    Vel::U32 low_ = 0;
    Vel::U32 high_ = 0;
    Vel::String label_;
    Vel::U32 count_ = 0;
    Vel::Ptr<Tank> next_;
};

inline constexpr Vel::AttributeId low = Vel::attributeId<Tank>("low");
inline constexpr Vel::AttributeId high = Vel::attributeId<Tank>("high");
inline constexpr Vel::AttributeId label = Vel::attributeId<Tank>("label");

}  // namespace StreamTest
