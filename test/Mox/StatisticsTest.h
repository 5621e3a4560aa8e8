#pragma once

#include "Mox/Statistics.h"

#include "EventsTest.h"

// What must be true of the statistic types, word for word, as EventsTest.h has it of the events.

template <> struct Facts<Mox::ConditionStat> {
    static constexpr char name[] = "Mox::ConditionStat";
    static constexpr char strepTemplate[] =
        "Value('Mox::ConditionStat', ** {'current': %s, 'changes': %u, 'lastChange': %s})";
    static constexpr char zeroText[] =
        "Value('Mox::ConditionStat', ** {'current': False, 'changes': 0, 'lastChange': 0.0})";
    static constexpr char text[] =
        "Value('Mox::ConditionStat', ** {'current': True, 'changes': 16909060, 'lastChange': 1700000000.125})";
    static constexpr char hex[] = "010102030441d954fc40080000";
    static constexpr std::array fields = {FieldFact{"current", "U1", 0, "True", "False", 43},
        FieldFact{"changes", "U32", 1, "16909060", "0", 60},
        FieldFact{"lastChange", "Vel::Seconds", 5, "1700000000.125", "0.0", 84}};
    static std::vector<std::string> attributes() {
        return {"2 current field ops 0 1 type U1", "3 changes field ops 0 1 type U32",
            "4 lastChange field ops 0 1 type Vel::Seconds", "5 update setter ops 1 type Mox::Event",
            "6 doUpdate method ops 10 (val U1, timestamp Vel::Seconds)"};
    }
    static constexpr Mox::ConditionStat sample() { return {true, 16909060, 1700000000.125}; }
    static std::vector<Mox::ConditionStat> oneFieldSet() {
        return {{true, 0, 0.0}, {false, 16909060, 0.0}, {false, 0, 1700000000.125}};
    }
    static std::vector<Mox::ConditionStat> oneFieldChanged() {
        return {{false, 16909060, 1700000000.125}, {true, 16909061, 1700000000.125}, {true, 16909060, 1700000000.25}};
    }
};

template <> struct Facts<Mox::EventStat> {
    static constexpr char name[] = "Mox::EventStat";
    static constexpr char strepTemplate[] = "Value('Mox::EventStat', ** {'current': %s, 'count': %u, 'last': %s})";
    static constexpr char zeroText[] = "Value('Mox::EventStat', ** {'current': False, 'count': 0, 'last': 0.0})";
    static constexpr char text[] =
        "Value('Mox::EventStat', ** {'current': True, 'count': 16909060, 'last': 1700000000.125})";
    static constexpr char hex[] = "010102030441d954fc40080000";
    static constexpr std::array fields = {FieldFact{"current", "U1", 0, "True", "False", 39},
        FieldFact{"count", "U32", 1, "16909060", "0", 54},
        FieldFact{"last", "Vel::Seconds", 5, "1700000000.125", "0.0", 72}};
    static std::vector<std::string> attributes() {
        return {"2 current field ops 0 1 type U1", "3 count field ops 0 1 type U32",
            "4 last field ops 0 1 type Vel::Seconds", "5 update setter ops 1 type Mox::Event",
            "6 doUpdate method ops 10 (val U1, timestamp Vel::Seconds)"};
    }
    static constexpr Mox::EventStat sample() { return {true, 16909060, 1700000000.125}; }
    static std::vector<Mox::EventStat> oneFieldSet() {
        return {{true, 0, 0.0}, {false, 16909060, 0.0}, {false, 0, 1700000000.125}};
    }
    static std::vector<Mox::EventStat> oneFieldChanged() {
        return {{false, 16909060, 1700000000.125}, {true, 16909061, 1700000000.125}, {true, 16909060, 1700000000.25}};
    }
};

template <> struct Facts<Mox::CountStat> {
    static constexpr char name[] = "Mox::CountStat";
    static constexpr char strepTemplate[] = "Value('Mox::CountStat', ** {'count': %u, 'last': %s})";
    static constexpr char zeroText[] = "Value('Mox::CountStat', ** {'count': 0, 'last': 0.0})";
    static constexpr char text[] = "Value('Mox::CountStat', ** {'count': 16909060, 'last': 1700000000.125})";
    static constexpr char hex[] = "0102030441d954fc40080000";
    static constexpr std::array fields = {FieldFact{"count", "U32", 0, "16909060", "0", 37},
        FieldFact{"last", "Vel::Seconds", 4, "1700000000.125", "0.0", 55}};
    static std::vector<std::string> attributes() {
        return {"2 count field ops 0 1 type U32", "3 last field ops 0 1 type Vel::Seconds",
            "4 update setter ops 1 type Mox::Count", "5 doUpdate method ops 10 (val U32, timestamp Vel::Seconds)"};
    }
    static constexpr Mox::CountStat sample() { return {16909060, 1700000000.125}; }
    static std::vector<Mox::CountStat> oneFieldSet() { return {{16909060, 0.0}, {0, 1700000000.125}}; }
    static std::vector<Mox::CountStat> oneFieldChanged() {
        return {{16909061, 1700000000.125}, {16909060, 1700000000.25}};
    }
};

template <> struct Facts<Mox::EventOrCountStat> {
    static constexpr char name[] = "Mox::EventOrCountStat";
    static constexpr char strepTemplate[] = "Value('Mox::EventOrCountStat', ** {'count': %u, 'last': %s})";
    static constexpr char zeroText[] = "Value('Mox::EventOrCountStat', ** {'count': 0, 'last': 0.0})";
    static constexpr char text[] = "Value('Mox::EventOrCountStat', ** {'count': 16909060, 'last': 1700000000.125})";
    static constexpr char hex[] = "0102030441d954fc40080000";
    static constexpr std::array fields = {FieldFact{"count", "U32", 0, "16909060", "0", 44},
        FieldFact{"last", "Vel::Seconds", 4, "1700000000.125", "0.0", 62}};
    static std::vector<std::string> attributes() {
        return {"2 count field ops 0 1 type U32", "3 last field ops 0 1 type Vel::Seconds",
            "4 update setter ops 1 type Mox::EventOrCount",
            "5 doUpdate method ops 10 (event U1, count U32, timestamp Vel::Seconds)"};
    }
    static constexpr Mox::EventOrCountStat sample() { return {16909060, 1700000000.125}; }
    static std::vector<Mox::EventOrCountStat> oneFieldSet() { return {{16909060, 0.0}, {0, 1700000000.125}}; }
    static std::vector<Mox::EventOrCountStat> oneFieldChanged() {
        return {{16909061, 1700000000.125}, {16909060, 1700000000.25}};
    }
};

template <> struct Facts<Mox::ConditionOrCountStat> {
    static constexpr char name[] = "Mox::ConditionOrCountStat";
    static constexpr char strepTemplate[] =
        "Value('Mox::ConditionOrCountStat', ** {'current': %s, 'changes': %u, 'lastChange': %s})";
    static constexpr char zeroText[] =
        "Value('Mox::ConditionOrCountStat', ** {'current': False, 'changes': 0, 'lastChange': 0.0})";
    static constexpr char text[] =
        "Value('Mox::ConditionOrCountStat', ** {'current': True, 'changes': 16909060, 'lastChange': 1700000000.125})";
    static constexpr char hex[] = "010102030441d954fc40080000";
    static constexpr std::array fields = {FieldFact{"current", "U1", 0, "True", "False", 50},
        FieldFact{"changes", "U32", 1, "16909060", "0", 67},
        FieldFact{"lastChange", "Vel::Seconds", 5, "1700000000.125", "0.0", 91}};
    static std::vector<std::string> attributes() {
        return {"2 current field ops 0 1 type U1", "3 changes field ops 0 1 type U32",
            "4 lastChange field ops 0 1 type Vel::Seconds", "5 update setter ops 1 type Mox::EventOrCount",
            "6 doUpdate method ops 10 (val U1, count U32, timestamp Vel::Seconds)"};
    }
    static constexpr Mox::ConditionOrCountStat sample() { return {true, 16909060, 1700000000.125}; }
    static std::vector<Mox::ConditionOrCountStat> oneFieldSet() {
        return {{true, 0, 0.0}, {false, 16909060, 0.0}, {false, 0, 1700000000.125}};
    }
    static std::vector<Mox::ConditionOrCountStat> oneFieldChanged() {
        return {{false, 16909060, 1700000000.125}, {true, 16909061, 1700000000.125}, {true, 16909060, 1700000000.25}};
    }
};

template <> struct Facts<Mox::ConditionOrChangedStat> {
    static constexpr char name[] = "Mox::ConditionOrChangedStat";
    static constexpr char strepTemplate[] =
        "Value('Mox::ConditionOrChangedStat', ** {'current': %s, 'changes': %u, 'lastChange': %s})";
    static constexpr char zeroText[] =
        "Value('Mox::ConditionOrChangedStat', ** {'current': False, 'changes': 0, 'lastChange': 0.0})";
    static constexpr char text[] =
        "Value('Mox::ConditionOrChangedStat', ** {'current': True, 'changes': 16909060, 'lastChange': 1700000000.125})";
    static constexpr char hex[] = "010102030441d954fc40080000";
    static constexpr std::array fields = {FieldFact{"current", "U1", 0, "True", "False", 52},
        FieldFact{"changes", "U32", 1, "16909060", "0", 69},
        FieldFact{"lastChange", "Vel::Seconds", 5, "1700000000.125", "0.0", 93}};
    static std::vector<std::string> attributes() {
        return {"2 current field ops 0 1 type U1", "3 changes field ops 0 1 type U32",
            "4 lastChange field ops 0 1 type Vel::Seconds", "5 update setter ops 1 type Mox::ConditionOrChanged",
            "6 doUpdate method ops 10 (val U1, changed U1, timestamp Vel::Seconds)"};
    }
    static constexpr Mox::ConditionOrChangedStat sample() { return {true, 16909060, 1700000000.125}; }
    static std::vector<Mox::ConditionOrChangedStat> oneFieldSet() {
        return {{true, 0, 0.0}, {false, 16909060, 0.0}, {false, 0, 1700000000.125}};
    }
    static std::vector<Mox::ConditionOrChangedStat> oneFieldChanged() {
        return {{false, 16909060, 1700000000.125}, {true, 16909061, 1700000000.125}, {true, 16909060, 1700000000.25}};
    }
};

template <> struct Facts<Mox::CountOrChangedStat> {
    static constexpr char name[] = "Mox::CountOrChangedStat";
    static constexpr char strepTemplate[] =
        "Value('Mox::CountOrChangedStat', ** {'count': %u, 'changes': %u, 'lastChange': %s})";
    static constexpr char zeroText[] =
        "Value('Mox::CountOrChangedStat', ** {'count': 0, 'changes': 0, 'lastChange': 0.0})";
    static constexpr char text[] =
        "Value('Mox::CountOrChangedStat', ** {'count': 16909060, 'changes': 84281096, 'lastChange': 1700000000.125})";
    static constexpr char hex[] = "010203040506070841d954fc40080000";
    static constexpr std::array fields = {FieldFact{"count", "U32", 0, "16909060", "0", 46},
        FieldFact{"changes", "U32", 4, "84281096", "0", 67},
        FieldFact{"lastChange", "Vel::Seconds", 8, "1700000000.125", "0.0", 91}};
    static std::vector<std::string> attributes() {
        return {"2 count field ops 0 1 type U32", "3 changes field ops 0 1 type U32",
            "4 lastChange field ops 0 1 type Vel::Seconds", "5 update setter ops 1 type Mox::Count",
            "6 doUpdate method ops 10 (val U32, timestamp Vel::Seconds)"};
    }
    static constexpr Mox::CountOrChangedStat sample() { return {16909060, 84281096, 1700000000.125}; }
    static std::vector<Mox::CountOrChangedStat> oneFieldSet() {
        return {{16909060, 0, 0.0}, {0, 84281096, 0.0}, {0, 0, 1700000000.125}};
    }
    static std::vector<Mox::CountOrChangedStat> oneFieldChanged() {
        return {{16909061, 84281096, 1700000000.125}, {16909060, 84281097, 1700000000.125},
            {16909060, 84281096, 1700000000.25}};
    }
};

using StatisticTypes = testing::Types<Mox::ConditionStat, Mox::EventStat, Mox::CountStat, Mox::EventOrCountStat,
    Mox::ConditionOrCountStat, Mox::ConditionOrChangedStat, Mox::CountOrChangedStat>;
using EventAndStatisticTypes = testing::Types<Mox::Event, Mox::Count, Mox::EventOrCount, Mox::ConditionOrChanged,
    Mox::ConditionStat, Mox::EventStat, Mox::CountStat, Mox::EventOrCountStat, Mox::ConditionOrCountStat,
    Mox::ConditionOrChangedStat, Mox::CountOrChangedStat>;

// Gives a statistic an observation in its parts.
template <class S> void byParts(S& s, Mox::Event const& e) { s.doUpdate(e.value(), e.when()); }
template <class S> void byParts(S& s, Mox::Count const& e) { s.doUpdate(e.count(), e.when()); }
template <class S> void byParts(S& s, Mox::EventOrCount const& e) { s.doUpdate(e.value(), e.count(), e.when()); }
template <class S> void byParts(S& s, Mox::ConditionOrChanged const& e) {
    s.doUpdate(e.current(), e.changed(), e.when());
}
