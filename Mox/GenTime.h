#pragma once

#include "Mox/Types.h"

namespace Mox {

// A time that counts as equal to another within a millisecond. Equality within a tolerance is not transitive, so the
// type has no comparison operators: equality, order and truth are offered to reflection only.
// A plain value: as thread-safe as a structure of its fields.
class VEL_API GenTime {
public:
    static constexpr double tolerance = 0.001;  // seconds; times that differ by less than this are equal

    constexpr GenTime() = default;
    constexpr GenTime(Seconds value, Seconds dummyValue) : value_(value), dummyValue_(dummyValue) {}
    GenTime(StrepIterator& it, StrepIterator const& end) { Vel::parse(*this, it, end); }
    GenTime(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    constexpr Seconds value() const { return value_; }
    constexpr Seconds dummyValue() const { return dummyValue_; }  // stored only: no comparison uses it
    constexpr void dummyValueIs(Seconds v) & { dummyValue_ = v; }

    constexpr bool isActive() const {
        return !(value_ == Seconds(0.0));
    }  // without tolerance: 0.0005 and NaN are active
    constexpr bool equals(Seconds t) const { return isClose(value_, t); }
    constexpr bool lessThanOrEqualTo(Seconds t) const { return isClose(value_, t) || value_ < t; }
    constexpr bool greaterThanOrEqualTo(Seconds t) const { return isClose(value_, t) || value_ > t; }

    static constexpr auto description();

private:
    static constexpr bool isClose(Seconds a, Seconds b) {
        double const difference = a.value() - b.value();
        return difference < tolerance && difference > -tolerance;
    }
    constexpr bool isBeyondTolerance() const { return value_.value() >= tolerance || value_.value() <= -tolerance; }
    constexpr bool isCloseTo(GenTime const& other) const { return isClose(value_, other.value_); }
    constexpr bool isBefore(GenTime const& other) const { return !isCloseTo(other) && value_ < other.value_; }

    Seconds value_;
    Seconds dummyValue_;
};

constexpr auto GenTime::description() {
    return Vel::record("Mox::GenTime", Vel::readOnlyField<&GenTime::value_>("value"),
        Vel::field<&GenTime::dummyValue_>("dummyValue"), Vel::method<&GenTime::isActive>("isActive"),
        Vel::method<&GenTime::lessThanOrEqualTo>("lessThanOrEqualTo", "t"),
        Vel::method<&GenTime::greaterThanOrEqualTo>("greaterThanOrEqualTo", "t"),
        Vel::method<&GenTime::equals>("equals", "t"))
        .with(
            Vel::truth<&GenTime::isBeyondTolerance>, Vel::equality<&GenTime::isCloseTo>, Vel::less<&GenTime::isBefore>);
}

}  // namespace Mox
