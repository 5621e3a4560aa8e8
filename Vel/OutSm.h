#pragma once

#include "Vel/NboAttrLog.h"

// Messages of an attribute log: a 4-byte length of what follows, a kind, a body of items. See docs/streaming.md.
namespace Vel::NboAttrLog {

enum class MessageKind : U8 {
    hello = 1,
    welcome = 2,
    type = 3,
    announce = 4,
    value = 5,
    keySet = 6,
    keyDel = 7,
    gone = 8,
    synced = 9,
    refused = 10,
    write = 11,
    ping = 12,
    pong = 13
};
inline constexpr std::size_t messageHeaderSize = 5;  // bytes: length and kind

// Where messages are written: each is begun, filled and committed. One that is not committed, since what filled it
// threw, is dropped when the next one begins.
class VEL_API OutSm {
public:
    OutSm() = default;
    OutSm(OutSm const&) = delete;
    OutSm& operator=(OutSm const&) = delete;
    virtual ~OutSm();

    Out& begin(MessageKind kind, std::size_t bodySize);  // bytes, exactly, so that the body need not be moved
    Out& out() { return *out_; }                         // of the message begun
    void commit();

protected:
    virtual Out& room(std::size_t size) = 0;  // where the next message goes, with room for `size` bytes
    virtual void committed(std::size_t) {}    // the last `size` bytes are a message

private:
    Out* out_ = nullptr;  // of a message begun and not committed, else null
    std::size_t start_ = 0;
};

struct VEL_API Impl {
    static void outSmCommitMessage(OutSm& sm) { sm.commit(); }  // closes one message
};

// Messages that wait for one peer.
class VEL_API BufferSm final : public OutSm {
public:
    ~BufferSm() override;
    std::span<U8 const> bytes() const { return out_.bytes().subspan(taken_); }
    std::size_t size() const { return out_.size() - taken_; }
    void take(std::size_t count) {
        taken_ += count;
        if (taken_ == out_.size()) clear();
    }
    void add(std::span<U8 const> bytes);  // whole messages, or the rest of one
    void clear() {
        out_.clear();
        taken_ = 0;
    }

private:
    Out& room(std::size_t) override { return out_; }
    Out out_;
    std::size_t taken_ = 0;
};

}  // namespace Vel::NboAttrLog
