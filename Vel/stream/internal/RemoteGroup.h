#pragma once

#include "Vel/stream/StreamWrite.h"
#include "Vel/stream/WriteHistory.h"
#include "Vel/stream/internal/StreamAdapter.h"
#include "Vel/stream/internal/ValueGroup.h"

#include <span>
#include <vector>

namespace Vel {

// Values that a reader asks to be set together, each perhaps only if the value now is the expected one.
//
// All of the message is read before anything is changed, as in RemoteWrite.
class VEL_API RemoteGroup {
public:
    // Reads the message from the first attribute on. Throws StreamException. The bytes of `body` must outlive this.
    RemoteGroup(StreamAdapter& adapter, NboAttrLog::In& body);

    WriteAnswer apply();                                                  // an observer may destroy the adapter
    std::size_t note(WriteHistory& history, String const& author) const;  // returns how many changes were noted
    // What has changed, if readers may not have been told of it, since an observer before theirs has thrown.
    std::span<HeldChanges::Change const> untold() const {
        if (!isUntold_) return {};
        return group_.held().changes();
    }

private:
    struct Expected {
        StreamAttribute const& attribute;
        std::span<U8 const> value;
    };
    std::optional<WriteAnswer> difference() const;

    Entity& entity_;
    ValueGroup group_;
    std::vector<Expected> expected_;
    bool isUntold_ = false;
};

}  // namespace Vel
