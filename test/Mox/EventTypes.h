#pragma once

#include "EventsTest.h"

#include "Vel/describe/Checked.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <iosfwd>
#include <span>
#include <string>
#include <vector>

// The event and statistic types at run time, for tests that ask the same of each: a test is then compiled once, and not
// once for each type.

struct EventType;

// A value of one of these types. It starts as the type's default value.
class EventValue {
public:
    explicit EventValue(EventType const& type);

    EventType const& type() const { return *type_; }
    void* data() { return bytes_.data(); }
    void const* data() const { return bytes_.data(); }

    friend bool operator==(EventValue const& a, EventValue const& b);             // by the type's own operator
    friend std::ostream& operator<<(std::ostream& out, EventValue const& value);  // likewise

private:
    EventType const* type_;
    alignas(8) std::array<unsigned char, 32> bytes_{};
};

// The facts of a type, and its functions. Pointers to void point to objects of the type.
struct EventType {
    char const* name;
    char const* strepTemplate;
    char const* zeroText;
    char const* text;
    char const* hex;
    std::span<FieldFact const> fields;
    std::size_t size;
    std::size_t alignment;
    std::vector<std::string> (*attributes)();
    std::vector<EventValue> (*oneFieldSet)();
    std::vector<EventValue> (*oneFieldChanged)();

    Vel::VelType (*type)();
    std::vector<std::string> (*spelledAttributes)();
    std::vector<Vel::U32> (*valueOps)();

    void (*construct)(void* value);
    void (*constructSample)(void* value);
    bool (*equal)(void const* a, void const* b);
    std::string (*textOf)(void const* value);
    void (*print)(std::ostream& out, void const* value);
    std::string (*formatted)(void const* value);  // by std::format with "[{}]"; null if the library has no std::format

    // Each parses by the function of the same name that takes a text of this kind.
    void (*strepToValue)(void* value, std::string const& text);
    void (*strepToValueOfChars)(void* value, char const* text);
    void (*strepToValueOfString)(void* value, Vel::String const& text);
    void (*constructAt)(void* value, Vel::String::IteratorConst& it, Vel::String::IteratorConst const& end);
    void (*parse)(void* value, Vel::String::IteratorConst& it, Vel::String::IteratorConst const& end);
    // By checkedStrepToValue(). If the text is refused, `value` becomes what valueOr() returns for a default value.
    // Returns whether the text is accepted.
    bool (*checkedStrepToValue)(void* value, std::string const& text, Vel::CheckedError& error);

    EventValue sample() const {
        EventValue value(*this);
        constructSample(value.data());
        return value;
    }
    EventValue parsed(std::string const& text) const {
        EventValue value(*this);
        strepToValue(value.data(), text);
        return value;
    }
    // The message of the parse exception for a text as a whole; a failed test when it is accepted.
    std::string parseError(std::string const& text) const;
};

std::span<EventType const> eventTypes();

// A test of each type: INSTANTIATE_TEST_SUITE_P(Types, Suite, eachEventType(), eventTypeName).
class EventTypeTest : public testing::TestWithParam<EventType const*> {
protected:
    EventType const& type = *GetParam();
};
std::vector<EventType const*> eventTypePointers();
inline auto eachEventType() { return testing::ValuesIn(eventTypePointers()); }
inline std::string eventTypeName(testing::TestParamInfo<EventType const*> const& info) {
    return std::string(info.param->name).substr(5);
}
