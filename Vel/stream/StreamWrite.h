#pragma once

#include "Vel/describe/GenericIf.h"

#include <concepts>
#include <functional>
#include <optional>

namespace Vel {

// What has become of a change that a reader has asked its source for.
enum class WriteResult : U32 {
    done,            // the source has changed, and its observers have been notified
    observerFailed,  // the source has changed, but an observer has thrown: `text` is what it said
    rejected,        // the mutator or the method has thrown: `text` is what it said
    differs,         // the value was not the expected one, so nothing has changed: `value` is the one that is there
    readOnly,        // the source takes no changes from this reader
    gone,            // the source does not have the entity any more
    unknown          // the connection has ended before an answer came, so the source may have changed or not
};
inline constexpr WriteResult lastWriteResult = WriteResult::unknown;

// Returns the name of the result, such as "done".
VEL_API char const* writeResultName(WriteResult result);

struct VEL_API WriteAnswer {
    WriteResult result = WriteResult::unknown;
    String text{};  // empty for `done` and `differs`
    // For `differs`, the value that is there; nothing if the collection does not have the key. For a call, its result.
    std::optional<GenericValue> value{};
    AttributeId attribute = 0;  // of several: the one that differs or is rejected

    bool hasChanged() const { return result == WriteResult::done || result == WriteResult::observerFailed; }
};

// Called once for each change that was asked for. When it is called for a change that was made, the copy has the new
// value already, or a later one.
using WriteTold = std::function<void(WriteAnswer const&)>;

// A value of any type that can be an attribute. It refers to the value, and so must not outlive it.
class ValueRef {
public:
    ValueRef(GenericValue const& value) : type_(value.type()), data_(value.data()) {}
    template <class V>
    requires(!std::same_as<V, GenericValue> && !std::same_as<V, ValueRef>) ValueRef(V const& value)
        : type_(typeOf<V>()), data_(&value) {}

    VelType type() const { return type_; }
    void const* data() const { return data_; }

private:
    VelType type_;
    void const* data_;
};

// A value for one of several attributes that are to change together.
struct ValueWrite {
    AttributeId attribute;
    ValueRef value;
    ValueRef const* expected = nullptr;  // if there is one: change them only if the attribute has this value
};

}  // namespace Vel
