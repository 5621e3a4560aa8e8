#pragma once

#include "Mox/Events.h"

#include "ValueTest.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <string>
#include <vector>

// What must be true of the event types, word for word. Everything is written out: a slip in a description
// changes what is read back, and so does not show in a test that asks the description.

struct FieldFact {
    char const* name;
    char const* type;    // as reflection calls it
    std::size_t offset;  // of the field in the attribute log, in bytes
    char const* text;    // of the sample's field
    char const* zero;    // of a default value's field
    std::size_t textAt;  // where it stands in the sample's text
};

template <class T> struct Facts;

template <> struct Facts<Mox::Event> {
    static constexpr char name[] = "Mox::Event";
    static constexpr char strepTemplate[] = "Value('Mox::Event', ** {'value': %s, 'when': %s})";
    static constexpr char zeroText[] = "Value('Mox::Event', ** {'value': False, 'when': 0.0})";
    static constexpr char text[] = "Value('Mox::Event', ** {'value': True, 'when': 1700000000.125})";
    static constexpr char hex[] = "0141d954fc40080000";
    static constexpr std::array fields = {FieldFact{"value", "U1", 0, "True", "False", 33},
        FieldFact{"when", "Vel::Seconds", 1, "1700000000.125", "0.0", 47}};
    static std::vector<std::string> attributes() {
        return {"2 value field ops 0 1 type U1", "3 when field ops 0 1 type Vel::Seconds"};
    }
    static constexpr Mox::Event sample() { return {true, 1700000000.125}; }
    static std::vector<Mox::Event> oneFieldSet() { return {{true, 0.0}, {false, 1700000000.125}}; }
    static std::vector<Mox::Event> oneFieldChanged() { return {{false, 1700000000.125}, {true, 1700000000.25}}; }
};

template <> struct Facts<Mox::Count> {
    static constexpr char name[] = "Mox::Count";
    static constexpr char strepTemplate[] = "Value('Mox::Count', ** {'count': %u, 'when': %s})";
    static constexpr char zeroText[] = "Value('Mox::Count', ** {'count': 0, 'when': 0.0})";
    static constexpr char text[] = "Value('Mox::Count', ** {'count': 16909060, 'when': 1700000000.125})";
    static constexpr char hex[] = "0102030441d954fc40080000";
    static constexpr std::array fields = {FieldFact{"count", "U32", 0, "16909060", "0", 33},
        FieldFact{"when", "Vel::Seconds", 4, "1700000000.125", "0.0", 51}};
    static std::vector<std::string> attributes() {
        return {"2 count field ops 0 1 type U32", "3 when field ops 0 1 type Vel::Seconds"};
    }
    static constexpr Mox::Count sample() { return {16909060, 1700000000.125}; }
    static std::vector<Mox::Count> oneFieldSet() { return {{16909060, 0.0}, {0, 1700000000.125}}; }
    static std::vector<Mox::Count> oneFieldChanged() { return {{16909061, 1700000000.125}, {16909060, 1700000000.25}}; }
};

template <> struct Facts<Mox::EventOrCount> {
    static constexpr char name[] = "Mox::EventOrCount";
    static constexpr char strepTemplate[] = "Value('Mox::EventOrCount', ** {'value': %s, 'count': %u, 'when': %s})";
    static constexpr char zeroText[] = "Value('Mox::EventOrCount', ** {'value': False, 'count': 0, 'when': 0.0})";
    static constexpr char text[] =
        "Value('Mox::EventOrCount', ** {'value': True, 'count': 16909060, 'when': 1700000000.125})";
    static constexpr char hex[] = "010102030441d954fc40080000";
    static constexpr std::array fields = {FieldFact{"value", "U1", 0, "True", "False", 40},
        FieldFact{"count", "U32", 1, "16909060", "0", 55},
        FieldFact{"when", "Vel::Seconds", 5, "1700000000.125", "0.0", 73}};
    static std::vector<std::string> attributes() {
        return {"2 value field ops 0 1 type U1", "3 count field ops 0 1 type U32",
            "4 when field ops 0 1 type Vel::Seconds"};
    }
    static constexpr Mox::EventOrCount sample() { return {true, 16909060, 1700000000.125}; }
    static std::vector<Mox::EventOrCount> oneFieldSet() {
        return {{true, 0, 0.0}, {false, 16909060, 0.0}, {false, 0, 1700000000.125}};
    }
    static std::vector<Mox::EventOrCount> oneFieldChanged() {
        return {{false, 16909060, 1700000000.125}, {true, 16909061, 1700000000.125}, {true, 16909060, 1700000000.25}};
    }
};

template <> struct Facts<Mox::ConditionOrChanged> {
    static constexpr char name[] = "Mox::ConditionOrChanged";
    static constexpr char strepTemplate[] =
        "Value('Mox::ConditionOrChanged', ** {'current': %s, 'changed': %s, 'when': %s})";
    static constexpr char zeroText[] =
        "Value('Mox::ConditionOrChanged', ** {'current': False, 'changed': False, 'when': 0.0})";
    static constexpr char text[] =
        "Value('Mox::ConditionOrChanged', ** {'current': True, 'changed': True, 'when': 1700000000.125})";
    static constexpr char hex[] = "010141d954fc40080000";
    static constexpr std::array fields = {FieldFact{"current", "U1", 0, "True", "False", 48},
        FieldFact{"changed", "U1", 1, "True", "False", 65},
        FieldFact{"when", "Vel::Seconds", 2, "1700000000.125", "0.0", 79}};
    static std::vector<std::string> attributes() {
        return {"2 current field ops 0 1 type U1", "3 changed field ops 0 1 type U1",
            "4 when field ops 0 1 type Vel::Seconds"};
    }
    static constexpr Mox::ConditionOrChanged sample() { return {true, true, 1700000000.125}; }
    static std::vector<Mox::ConditionOrChanged> oneFieldSet() {
        return {{true, false, 0.0}, {false, true, 0.0}, {false, false, 1700000000.125}};
    }
    static std::vector<Mox::ConditionOrChanged> oneFieldChanged() {
        return {{false, true, 1700000000.125}, {true, false, 1700000000.125}, {true, true, 1700000000.25}};
    }
};

using EventTypes = testing::Types<Mox::Event, Mox::Count, Mox::EventOrCount, Mox::ConditionOrChanged>;
struct TypeNames {  // what gtest calls the instances of a typed suite
    template <class T> static std::string GetName(int) { return std::string(Facts<T>::name).substr(5); }
};

template <class T> std::string textOf(T const& value) { return valueToStrep(value).stdString(); }

// What a type may have.
template <class T>
concept Increments = requires(T& value) {
    value.countInc(1u);
};
template <class T>
concept IncrementsChanges = requires(T& value) {
    value.changesInc(1u);
};
template <class T, class E>
concept Updates = requires(T& value, E const& event) {
    value.updateIs(event);
};
template <class T, class... A>
concept UpdatesFrom = requires(T& value, A... arguments) {
    value.doUpdate(arguments...);
};
