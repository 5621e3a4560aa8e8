#pragma once

#include "Vel/describe/StreamTable.h"
#include "Vel/entity/Together.h"

#include <span>
#include <vector>

namespace Vel {

// Values for several attributes of one entity, which are set together or not at all. The entity's notifications are
// held back while this exists, and told when all of the values are set.
class VEL_API ValueGroup {
public:
    ValueGroup(Entity& entity, StreamTable const& table);  // REQUIRES: a Ptr refers to the entity

    // Reads the number of an attribute. Throws StreamException if it is no value attribute, or has come before.
    StreamAttribute const& nextAttribute(NboAttrLog::In& body);
    // Reads the value for that attribute. The bytes of `body` must outlive this.
    void nextValue(NboAttrLog::In& body);
    // The same for a value with its length before it. That of an attribute that `skips` is left out.
    void nextSizedValue(NboAttrLog::In& body);

    // Sets the values, then notifies the observers. If a mutator throws, puts the values back that were set before; no
    // observer is told of an attribute that has its old value again. Then throws what the mutator has thrown.
    void set();
    // The attribute whose mutator has thrown; null after all of them were set, also if an observer has thrown.
    StreamAttribute const* rejected() const { return rejected_; }
    // Whether the entity has changed although a mutator has thrown.
    bool isChangedByRejected() const { return rejected_ && !held_.changes().empty(); }
    HeldChanges const& held() const { return held_; }
    template <class F> void each(F f) const {  // calls f(attribute, value) for each, with the value's bytes
        for (Item const& item : items_) f(*item.attribute, item.value);
    }

private:
    struct Item {
        StreamAttribute const* attribute;
        std::span<U8 const> value{};
        NboAttrLog::Out before{};
    };
    bool isAsBefore(Item const& item) const;
    void putBack();
    void tellTheRest();

    Entity& entity_;
    StreamTable const& table_;
    HeldChanges held_;
    std::vector<Item> items_;
    StreamAttribute const* rejected_ = nullptr;
};

}  // namespace Vel
