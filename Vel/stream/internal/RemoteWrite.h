#pragma once

#include "Vel/entity/ObserverFailure.h"
#include "Vel/stream/StreamWrite.h"
#include "Vel/stream/WriteHistory.h"
#include "Vel/stream/internal/StreamAdapter.h"
#include "Vel/stream/internal/StreamProtocol.h"

#include <span>
#include <vector>

namespace Vel {

// A change that a reader asks for: of a value attribute, or of one key of a collection of values.
//
// All of the message is read before anything is changed. So an error in it is the reader's, and ends the connection;
// what is thrown after that is the mutator's or an observer's, and is answered.
class VEL_API RemoteWrite {
public:
    // Reads the message from the attribute's id on. Throws StreamException. The bytes of `body` must outlive this.
    RemoteWrite(StreamAdapter& adapter, U8 ops, NboAttrLog::In& body);

    WriteAnswer apply();                                                  // an observer may destroy the adapter
    std::size_t note(WriteHistory& history, String const& author) const;  // returns how many changes were noted
    // What has changed, if readers may not have been told of it, since an observer before theirs has thrown.
    std::span<HeldChanges::Change const> untold() const { return untold_; }

private:
    std::optional<GenericValue> current() const;
    bool isAsExpected(std::optional<GenericValue> const& current) const;
    bool isKey() const { return attribute_.kind == StreamKind::values; }
    void change() const;
    WriteAnswer applied(ObserverFailure const& observers);

    StreamAdapter& adapter_;
    StreamAttribute const& attribute_;
    U8 ops_;
    bool expectsValue_ = false;
    std::span<U8 const> key_;
    std::span<U8 const> expected_;
    std::span<U8 const> value_;
    std::vector<HeldChanges::Change> untold_;
};

}  // namespace Vel
