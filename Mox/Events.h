#pragma once

#include "Mox/Types.h"

// Events: records that report one observation and its time, in seconds. Statistics.h, which this header includes, sums
// up streams of them; events and statistics are one module.
// Plain values: as thread-safe as a structure of their fields.
namespace Mox {

// A boolean event.
class VEL_API Event {
public:
    constexpr Event() = default;
    constexpr Event(U1 value, Seconds when) : value_(value), when_(when) {}
    Event(StrepIterator& it, StrepIterator const& end) { Vel::parse(*this, it, end); }
    Event(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    constexpr bool value() const { return value_; }  // whether the event occurred, or the new state of a condition
    constexpr void valueIs(U1 v) & { value_ = v; }
    constexpr Seconds when() const { return when_; }
    constexpr void whenIs(Seconds v) & { when_ = v; }

    friend constexpr bool operator==(Event const&, Event const&) = default;

    static constexpr auto description() {
        return Vel::record("Mox::Event", Vel::field<&Event::value_>("value"), Vel::field<&Event::when_>("when"));
    }

private:
    U1 value_;
    Seconds when_;
};

// A number of occurrences.
class VEL_API Count {
public:
    constexpr Count() = default;
    constexpr Count(U32 count, Seconds when) : count_(count), when_(when) {}
    Count(StrepIterator& it, StrepIterator const& end) { Vel::parse(*this, it, end); }
    Count(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    constexpr U32 count() const { return count_; }
    constexpr void countIs(U32 v) & { count_ = v; }
    constexpr Seconds when() const { return when_; }
    constexpr void whenIs(Seconds v) & { when_ = v; }

    friend constexpr bool operator==(Count const&, Count const&) = default;

    static constexpr auto description() {
        return Vel::record("Mox::Count", Vel::field<&Count::count_>("count"), Vel::field<&Count::when_>("when"));
    }

private:
    U32 count_ = 0;
    Seconds when_;
};

// A boolean event, or a number of occurrences.
class VEL_API EventOrCount {
public:
    constexpr EventOrCount() = default;
    constexpr EventOrCount(U1 value, U32 count, Seconds when) : value_(value), count_(count), when_(when) {}
    EventOrCount(StrepIterator& it, StrepIterator const& end) { Vel::parse(*this, it, end); }
    EventOrCount(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    constexpr bool value() const { return value_; }
    constexpr void valueIs(U1 v) & { value_ = v; }
    constexpr U32 count() const { return count_; }
    constexpr void countIs(U32 v) & { count_ = v; }
    constexpr Seconds when() const { return when_; }
    constexpr void whenIs(Seconds v) & { when_ = v; }

    friend constexpr bool operator==(EventOrCount const&, EventOrCount const&) = default;

    static constexpr auto description() {
        return Vel::record("Mox::EventOrCount", Vel::field<&EventOrCount::value_>("value"),
            Vel::field<&EventOrCount::count_>("count"), Vel::field<&EventOrCount::when_>("when"));
    }

private:
    U1 value_;
    U32 count_ = 0;
    Seconds when_;
};

// The state of a condition, and whether it has changed since the last observation, even if it has changed back.
class VEL_API ConditionOrChanged {
public:
    constexpr ConditionOrChanged() = default;
    constexpr ConditionOrChanged(U1 current, U1 changed, Seconds when)
        : current_(current), changed_(changed), when_(when) {}
    ConditionOrChanged(StrepIterator& it, StrepIterator const& end) { Vel::parse(*this, it, end); }
    ConditionOrChanged(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    constexpr bool current() const { return current_; }
    constexpr void currentIs(U1 v) & { current_ = v; }
    constexpr bool changed() const { return changed_; }
    constexpr void changedIs(U1 v) & { changed_ = v; }
    constexpr Seconds when() const { return when_; }
    constexpr void whenIs(Seconds v) & { when_ = v; }

    friend constexpr bool operator==(ConditionOrChanged const&, ConditionOrChanged const&) = default;

    static constexpr auto description() {
        return Vel::record("Mox::ConditionOrChanged", Vel::field<&ConditionOrChanged::current_>("current"),
            Vel::field<&ConditionOrChanged::changed_>("changed"), Vel::field<&ConditionOrChanged::when_>("when"));
    }

private:
    U1 current_;
    U1 changed_;
    Seconds when_;
};

}  // namespace Mox

#include "Mox/Statistics.h"  // at the end, since it needs the events
