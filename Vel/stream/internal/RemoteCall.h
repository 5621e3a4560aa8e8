#pragma once

#include "Vel/entity/Together.h"
#include "Vel/stream/StreamWrite.h"
#include "Vel/stream/WriteHistory.h"
#include "Vel/stream/internal/StreamAdapter.h"

#include <span>
#include <vector>

namespace Vel {

// A method that a reader asks to be called. What it changes in its entity is told together, when it has returned.
//
// All of the message is read before the call, as in RemoteWrite.
class VEL_API RemoteCall {
public:
    // Reads the message from the method's number on. Throws StreamException. The bytes of `body` must outlive this.
    RemoteCall(StreamAdapter& adapter, NboAttrLog::In& body);

    std::size_t note(WriteHistory& history, String const& author) const;  // see RemoteGroup
    WriteAnswer apply();  // the method or an observer may destroy the adapter
    // See RemoteGroup.
    std::span<HeldChanges::Change const> untold() const {
        if (!isUntold_) return {};
        return held_.changes();
    }

    // Returns the method with this number if readers can call it: if its parameters are values, and its result is one
    // or nothing.
    static std::optional<VelAttr> methodOf(VelType type, AttributeId id);
    // The types of the values that a call sends: of the method's parameters, and of its result if there is one.
    static std::vector<VelType> typesOf(VelAttr method);

private:
    WriteAnswer call();

    Entity& entity_;
    HeldChanges held_;
    VelAttr method_;
    std::vector<GenericValue> arguments_;
    std::span<U8 const> argumentBytes_;
    bool isUntold_ = false;
};

}  // namespace Vel
