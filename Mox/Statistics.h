#pragma once

#include "Mox/Events.h"

// Statistics: each sums up a stream of observations. It takes an observation as an event (updateIs), or as the event's
// parts (doUpdate). It never reads a clock: the caller passes times, in seconds. Counters wrap around modulo 2^32.
// Plain values: as thread-safe as a structure of their fields.
namespace Mox {

// A condition: its state and how often it has changed.
class VEL_API ConditionStat {
public:
    constexpr ConditionStat() = default;
    constexpr ConditionStat(U1 current, U32 changes, Seconds lastChange)
        : current_(current), changes_(changes), lastChange_(lastChange) {}
    ConditionStat(StrepIterator& it, StrepIterator const& end) { Vel::parse(*this, it, end); }
    ConditionStat(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    constexpr bool current() const { return current_; }  // as last observed
    constexpr void currentIs(U1 v) & { current_ = v; }
    constexpr U32 changes() const { return changes_; }  // transitions
    constexpr void changesIs(U32 v) & { changes_ = v; }
    constexpr void changesInc(unsigned n) & { changes_ += n; }    // moves no time stamp
    constexpr Seconds lastChange() const { return lastChange_; }  // time of the last transition; 0.0 if there was none
    constexpr void lastChangeIs(Seconds v) & { lastChange_ = v; }

    constexpr void updateIs(Event const& e) & { doUpdate(e.value(), e.when()); }
    constexpr void doUpdate(U1 val, Seconds timestamp) & {
        if (val != current_) {
            ++changes_;
            lastChange_ = timestamp;
        }
        current_ = val;
    }

    friend constexpr bool operator==(ConditionStat const&, ConditionStat const&) = default;

    static constexpr auto description() {
        return Vel::record("Mox::ConditionStat", Vel::field<&ConditionStat::current_>("current"),
            Vel::field<&ConditionStat::changes_>("changes"), Vel::field<&ConditionStat::lastChange_>("lastChange"),
            Vel::setter<&ConditionStat::updateIs>("update"),
            Vel::method<&ConditionStat::doUpdate>("doUpdate", "val", "timestamp"));
    }

private:
    U1 current_;
    U32 changes_ = 0;
    Seconds lastChange_;
};

// An event: how often it has occurred.
class VEL_API EventStat {
public:
    constexpr EventStat() = default;
    constexpr EventStat(U1 current, U32 count, Seconds last) : current_(current), count_(count), last_(last) {}
    EventStat(StrepIterator& it, StrepIterator const& end) { Vel::parse(*this, it, end); }
    EventStat(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    constexpr bool current() const { return current_; }  // as last observed
    constexpr void currentIs(U1 v) & { current_ = v; }
    constexpr U32 count() const { return count_; }  // occurrences
    constexpr void countIs(U32 v) & { count_ = v; }
    constexpr void countInc(unsigned n) & { count_ += n; }  // moves no time stamp
    constexpr Seconds last() const { return last_; }        // time of the last occurrence; 0.0 if there was none
    constexpr void lastIs(Seconds v) & { last_ = v; }

    constexpr void updateIs(Event const& e) & { doUpdate(e.value(), e.when()); }
    constexpr void doUpdate(U1 val, Seconds timestamp) & {
        current_ = val;
        if (!val) return;
        ++count_;
        last_ = timestamp;
    }

    friend constexpr bool operator==(EventStat const&, EventStat const&) = default;

    static constexpr auto description() {
        return Vel::record("Mox::EventStat", Vel::field<&EventStat::current_>("current"),
            Vel::field<&EventStat::count_>("count"), Vel::field<&EventStat::last_>("last"),
            Vel::setter<&EventStat::updateIs>("update"),
            Vel::method<&EventStat::doUpdate>("doUpdate", "val", "timestamp"));
    }

private:
    U1 current_;
    U32 count_ = 0;
    Seconds last_;
};

// Running total of counted occurrences.
class VEL_API CountStat {
public:
    constexpr CountStat() = default;
    constexpr CountStat(U32 count, Seconds last) : count_(count), last_(last) {}
    CountStat(StrepIterator& it, StrepIterator const& end) { Vel::parse(*this, it, end); }
    CountStat(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    constexpr U32 count() const { return count_; }  // occurrences
    constexpr void countIs(U32 v) & { count_ = v; }
    constexpr void countInc(unsigned n) & { count_ += n; }  // moves no time stamp
    constexpr Seconds last() const { return last_; }        // time of the last occurrence; 0.0 if there was none
    constexpr void lastIs(Seconds v) & { last_ = v; }

    constexpr void updateIs(Count const& e) & { doUpdate(e.count(), e.when()); }
    constexpr void doUpdate(U32 val, Seconds timestamp) & {
        if (val == 0) return;  // a report of zero occurrences changes nothing
        count_ += val;
        last_ = timestamp;
    }

    friend constexpr bool operator==(CountStat const&, CountStat const&) = default;

    static constexpr auto description() {
        return Vel::record("Mox::CountStat", Vel::field<&CountStat::count_>("count"),
            Vel::field<&CountStat::last_>("last"), Vel::setter<&CountStat::updateIs>("update"),
            Vel::method<&CountStat::doUpdate>("doUpdate", "val", "timestamp"));
    }

private:
    U32 count_ = 0;
    Seconds last_;
};

// Running total of occurrences that are reported one by one or counted. If an observation has both the flag and a
// count, the count is used.
class VEL_API EventOrCountStat {
public:
    constexpr EventOrCountStat() = default;
    constexpr EventOrCountStat(U32 count, Seconds last) : count_(count), last_(last) {}
    EventOrCountStat(StrepIterator& it, StrepIterator const& end) { Vel::parse(*this, it, end); }
    EventOrCountStat(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    constexpr U32 count() const { return count_; }  // occurrences
    constexpr void countIs(U32 v) & { count_ = v; }
    constexpr void countInc(unsigned n) & { count_ += n; }  // moves no time stamp
    constexpr Seconds last() const { return last_; }        // time of the last occurrence; 0.0 if there was none
    constexpr void lastIs(Seconds v) & { last_ = v; }

    constexpr void updateIs(EventOrCount const& e) & { doUpdate(e.value(), e.count(), e.when()); }
    constexpr void doUpdate(U1 event, U32 count, Seconds timestamp) & {
        U32 const occurrences = count != 0 ? count : U32(event ? 1 : 0);
        if (occurrences == 0) return;
        count_ += occurrences;
        last_ = timestamp;
    }

    friend constexpr bool operator==(EventOrCountStat const&, EventOrCountStat const&) = default;

    static constexpr auto description() {
        return Vel::record("Mox::EventOrCountStat", Vel::field<&EventOrCountStat::count_>("count"),
            Vel::field<&EventOrCountStat::last_>("last"), Vel::setter<&EventOrCountStat::updateIs>("update"),
            Vel::method<&EventOrCountStat::doUpdate>("doUpdate", "event", "count", "timestamp"));
    }

private:
    U32 count_ = 0;
    Seconds last_;
};

// A condition whose observations say how often it became true since the last one: `count` is that number, `val` the
// state now.
class VEL_API ConditionOrCountStat {
public:
    constexpr ConditionOrCountStat() = default;
    constexpr ConditionOrCountStat(U1 current, U32 changes, Seconds lastChange)
        : current_(current), changes_(changes), lastChange_(lastChange) {}
    ConditionOrCountStat(StrepIterator& it, StrepIterator const& end) { Vel::parse(*this, it, end); }
    ConditionOrCountStat(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    constexpr bool current() const { return current_; }  // as last observed
    constexpr void currentIs(U1 v) & { current_ = v; }
    constexpr U32 changes() const { return changes_; }  // transitions
    constexpr void changesIs(U32 v) & { changes_ = v; }
    constexpr void changesInc(unsigned n) & { changes_ += n; }    // moves no time stamp
    constexpr Seconds lastChange() const { return lastChange_; }  // time of the last transition; 0.0 if there was none
    constexpr void lastChangeIs(Seconds v) & { lastChange_ = v; }

    constexpr void updateIs(EventOrCount const& e) & { doUpdate(e.value(), e.count(), e.when()); }
    constexpr void doUpdate(U1 val, U32 count, Seconds timestamp) & {
        if (count != 0) {
            // Each rise is preceded by a fall, except the first one if the condition was false. If it is false now,
            // there was one more fall.
            changes_ += 2 * count - (current_ ? 0 : 1) + (val ? 0 : 1);
            lastChange_ = timestamp;
        } else if (val != current_) {
            ++changes_;
            lastChange_ = timestamp;
        }
        current_ = val;
    }

    friend constexpr bool operator==(ConditionOrCountStat const&, ConditionOrCountStat const&) = default;

    static constexpr auto description() {
        return Vel::record("Mox::ConditionOrCountStat", Vel::field<&ConditionOrCountStat::current_>("current"),
            Vel::field<&ConditionOrCountStat::changes_>("changes"),
            Vel::field<&ConditionOrCountStat::lastChange_>("lastChange"),
            Vel::setter<&ConditionOrCountStat::updateIs>("update"),
            Vel::method<&ConditionOrCountStat::doUpdate>("doUpdate", "val", "count", "timestamp"));
    }

private:
    U1 current_;
    U32 changes_ = 0;
    Seconds lastChange_;
};

// A condition that is observed together with whether it has changed. If `changed` is set but the state is the same, it
// changed and changed back: two transitions.
class VEL_API ConditionOrChangedStat {
public:
    constexpr ConditionOrChangedStat() = default;
    constexpr ConditionOrChangedStat(U1 current, U32 changes, Seconds lastChange)
        : current_(current), changes_(changes), lastChange_(lastChange) {}
    ConditionOrChangedStat(StrepIterator& it, StrepIterator const& end) { Vel::parse(*this, it, end); }
    ConditionOrChangedStat(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    constexpr bool current() const { return current_; }  // as last observed
    constexpr void currentIs(U1 v) & { current_ = v; }
    constexpr U32 changes() const { return changes_; }  // transitions
    constexpr void changesIs(U32 v) & { changes_ = v; }
    constexpr void changesInc(unsigned n) & { changes_ += n; }    // moves no time stamp
    constexpr Seconds lastChange() const { return lastChange_; }  // time of the last transition; 0.0 if there was none
    constexpr void lastChangeIs(Seconds v) & { lastChange_ = v; }

    constexpr void updateIs(ConditionOrChanged const& e) & { doUpdate(e.current(), e.changed(), e.when()); }
    constexpr void doUpdate(U1 val, U1 changed, Seconds timestamp) & {
        if (!changed && val == current_) return;
        changes_ += changed && val == current_ ? 2 : 1;
        current_ = val;
        lastChange_ = timestamp;
    }

    friend constexpr bool operator==(ConditionOrChangedStat const&, ConditionOrChangedStat const&) = default;

    static constexpr auto description() {
        return Vel::record("Mox::ConditionOrChangedStat", Vel::field<&ConditionOrChangedStat::current_>("current"),
            Vel::field<&ConditionOrChangedStat::changes_>("changes"),
            Vel::field<&ConditionOrChangedStat::lastChange_>("lastChange"),
            Vel::setter<&ConditionOrChangedStat::updateIs>("update"),
            Vel::method<&ConditionOrChangedStat::doUpdate>("doUpdate", "val", "changed", "timestamp"));
    }

private:
    U1 current_;
    U32 changes_ = 0;
    Seconds lastChange_;
};

// The last count other than zero that was reported, and the number of such reports. Unlike CountStat it keeps no sum.
class VEL_API CountOrChangedStat {
public:
    constexpr CountOrChangedStat() = default;
    constexpr CountOrChangedStat(U32 count, U32 changes, Seconds lastChange)
        : count_(count), changes_(changes), lastChange_(lastChange) {}
    CountOrChangedStat(StrepIterator& it, StrepIterator const& end) { Vel::parse(*this, it, end); }
    CountOrChangedStat(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

    constexpr U32 count() const { return count_; }  // as last reported
    constexpr void countIs(U32 v) & { count_ = v; }
    constexpr U32 changes() const { return changes_; }  // reports other than zero
    constexpr void changesIs(U32 v) & { changes_ = v; }
    constexpr void changesInc(unsigned n) & { changes_ += n; }    // moves no time stamp
    constexpr Seconds lastChange() const { return lastChange_; }  // time of the last such report; 0.0 if there was none
    constexpr void lastChangeIs(Seconds v) & { lastChange_ = v; }

    constexpr void updateIs(Count const& e) & { doUpdate(e.count(), e.when()); }
    constexpr void doUpdate(U32 val, Seconds timestamp) & {
        if (val == 0) return;  // a report of zero occurrences changes nothing
        ++changes_;
        count_ = val;
        lastChange_ = timestamp;
    }

    friend constexpr bool operator==(CountOrChangedStat const&, CountOrChangedStat const&) = default;

    static constexpr auto description() {
        return Vel::record("Mox::CountOrChangedStat", Vel::field<&CountOrChangedStat::count_>("count"),
            Vel::field<&CountOrChangedStat::changes_>("changes"),
            Vel::field<&CountOrChangedStat::lastChange_>("lastChange"),
            Vel::setter<&CountOrChangedStat::updateIs>("update"),
            Vel::method<&CountOrChangedStat::doUpdate>("doUpdate", "val", "timestamp"));
    }

private:
    U32 count_ = 0;
    U32 changes_ = 0;
    Seconds lastChange_;
};

}  // namespace Mox
