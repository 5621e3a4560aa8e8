#include "EventTypes.h"

#include "StatisticsTest.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Format.h"

#include <new>
#include <ostream>
#include <type_traits>

namespace {

template <class T> T const& as(void const* value) { return *static_cast<T const*>(value); }
template <class T> T& as(void* value) { return *static_cast<T*>(value); }

template <class T> std::vector<EventValue> erased(EventType const& type, std::vector<T> const& values) {
    std::vector<EventValue> result;
    for (T const& value : values) new (result.emplace_back(type).data()) T(value);
    return result;
}

template <class T> struct Functions {
    static_assert(std::is_trivially_copyable_v<T>);  // so that an EventValue may be copied

    static std::vector<EventValue> oneFieldSet();
    static std::vector<EventValue> oneFieldChanged();
    static void construct(void* value) { new (value) T(); }
    static void constructSample(void* value) { new (value) T(Facts<T>::sample()); }
    static bool equal(void const* a, void const* b) { return as<T>(a) == as<T>(b); }
    static std::string text(void const* value) { return textOf(as<T>(value)); }
    static void print(std::ostream& out, void const* value) { out << as<T>(value); }
#if defined(__cpp_lib_format)
    static std::string format(void const* value) { return std::format("[{}]", as<T>(value)); }
    static constexpr auto formatted = &format;
#else
    static constexpr std::string (*formatted)(void const*) = nullptr;
#endif
    static void strepToValue(void* value, std::string const& text) { as<T>(value) = Vel::strepToValue<T>(text); }
    static void strepToValueOfChars(void* value, char const* text) {
        as<T>(value) = Vel::strepToValue<T>(text, nullptr);
    }
    static void strepToValueOfString(void* value, Vel::String const& text) {
        as<T>(value) = Vel::strepToValue<T>(text);
    }
    static void constructAt(void* value, Vel::String::IteratorConst& it, Vel::String::IteratorConst const& end) {
        new (value) T(it, end);
    }
    static void parse(void* value, Vel::String::IteratorConst& it, Vel::String::IteratorConst const& end) {
        Vel::parse(as<T>(value), it, end);
    }
    static bool checkedStrepToValue(void* value, std::string const& text, Vel::CheckedError& error) {
        auto const checked = Vel::checkedStrepToValue<T>(text);
        as<T>(value) = checked ? *checked : checked.valueOr(T());
        if (!checked) error = checked.error();
        return bool(checked);
    }

    static constexpr EventType made{.name = Facts<T>::name,
        .strepTemplate = Facts<T>::strepTemplate,
        .zeroText = Facts<T>::zeroText,
        .text = Facts<T>::text,
        .hex = Facts<T>::hex,
        .fields = Facts<T>::fields,
        .size = sizeof(T),
        .alignment = alignof(T),
        .attributes = &Facts<T>::attributes,
        .oneFieldSet = &oneFieldSet,
        .oneFieldChanged = &oneFieldChanged,
        .type = &Vel::typeOf<T>,
        .spelledAttributes = &spelledAttributes<T>,
        .valueOps = &valueOps<T>,
        .construct = &construct,
        .constructSample = &constructSample,
        .equal = &equal,
        .textOf = &text,
        .print = &print,
        .formatted = formatted,
        .strepToValue = &strepToValue,
        .strepToValueOfChars = &strepToValueOfChars,
        .strepToValueOfString = &strepToValueOfString,
        .constructAt = &constructAt,
        .parse = &parse,
        .checkedStrepToValue = &checkedStrepToValue};
};

template <class... T> std::span<EventType const> typesOf(testing::Types<T...>) {
    static constexpr EventType types[] = {Functions<T>::made...};
    return types;
}

template <class T> EventType const& typeOfName() {
    for (EventType const& type : eventTypes())
        if (type.name == Facts<T>::name) return type;
    throw std::logic_error("not a type of events");
}
template <class T> std::vector<EventValue> Functions<T>::oneFieldSet() {
    return erased(typeOfName<T>(), Facts<T>::oneFieldSet());
}
template <class T> std::vector<EventValue> Functions<T>::oneFieldChanged() {
    return erased(typeOfName<T>(), Facts<T>::oneFieldChanged());
}

}  // namespace

EventValue::EventValue(EventType const& type) : type_(&type) {
    if (type.size > bytes_.size() || type.alignment > 8) throw std::logic_error("an EventValue has no room for it");
    type.construct(data());
}
bool operator==(EventValue const& a, EventValue const& b) {
    return a.type_ == b.type_ && a.type_->equal(a.data(), b.data());
}
std::ostream& operator<<(std::ostream& out, EventValue const& value) {
    value.type_->print(out, value.data());
    return out;
}

std::string EventType::parseError(std::string const& text) const {
    try {
        parsed(text);
    } catch (Vel::ParseException const& error) {
        return error.what();
    }
    ADD_FAILURE() << "accepted: " << text;
    return {};
}

std::span<EventType const> eventTypes() { return typesOf(EventAndStatisticTypes()); }
std::vector<EventType const*> eventTypePointers() {
    std::vector<EventType const*> pointers;
    for (EventType const& type : eventTypes()) pointers.push_back(&type);
    return pointers;
}
