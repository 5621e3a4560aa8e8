#pragma once

#include "Vel/text/NboAttrLog.h"

#include <utility>

// Messages of an attribute log: a length of what follows, a kind, a body of compact numbers and items. See
// docs/streaming.md.
namespace Vel::NboAttrLog {

// A number in 1, 2, 4 or 8 bytes, which it says in the first two bits; the rest is in network byte order. Small numbers
// are the common ones, and what a change costs each reader goes with its bytes. The variable-length integers of RFC
// 9000, section 16.
struct Compact {
    U32 number;
    friend Out& operator<<(Out& out, Compact value) { return value.append(out); }

private:
    Out& append(Out& out) const;
};

inline constexpr std::size_t compactSize(U32 number) {  // bytes
    return number < 1u << 6 ? 1 : number < 1u << 14 ? 2 : number < 1u << 30 ? 4 : 8;
}
inline void storeCompact(U8* to, U32 number, std::size_t size) {  // REQUIRES: size is one of the four, and large enough
    if (size == 1)
        *to = static_cast<U8>(number);
    else if (size == 2)
        store(to, static_cast<U16>(0x4000 | number));
    else if (size == 4)
        store(to, 0x80000000 | number);
    else
        store(to, U64(0xC000000000000000) | number);
}
inline Out& Compact::append(Out& out) const {
    std::size_t const size = compactSize(number);
    storeCompact(out.append(size), number, size);
    return out;
}
VEL_API U32 nextCompact(In& in);  // throws StreamException where none is

// What a message begins with.
struct MessageLength {
    std::size_t size = 0;  // bytes that it takes itself; 0: not all of them are there
    U64 length = 0;        // bytes that follow, kind and body
};
inline MessageLength messageLength(std::span<U8 const> bytes) {
    if (bytes.empty()) return {};
    std::size_t const size = std::size_t(1) << (bytes[0] >> 6);
    if (bytes.size() < size) return {};
    switch (size) {
    case 1:
        return {1, bytes[0]};
    case 2:
        return {2, load<U16>(bytes.data()) & 0x3FFFu};
    case 4:
        return {4, load<U32>(bytes.data()) & 0x3FFFFFFFu};
    default:
        return {8, load<U64>(bytes.data()) & 0x3FFFFFFFFFFFFFFFu};
    }
}

// The body of a whole message.
inline std::span<U8 const> messageBody(std::span<U8 const> message) {
    return message.subspan(messageLength(message).size + 1);
}

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
    pong = 13,
    keysAgain = 14,
    keysEnd = 15
};
inline constexpr MessageKind lastMessageKind = MessageKind::keysEnd;

// Where messages are written: each is begun, filled and committed. One that is not committed, since what filled it
// threw, is dropped when the next one begins.
class VEL_API OutSm {
public:
    OutSm() = default;
    OutSm(OutSm const&) = delete;
    OutSm& operator=(OutSm const&) = delete;
    virtual ~OutSm();

    Out& begin(MessageKind kind, std::size_t bodySize);  // bytes, at least as many, so that the body need not be moved
    Out& out() { return *out_; }                         // of the message begun
    void commit();
    void addMessages(std::span<U8 const> messages, std::size_t count);  // whole ones, as another output has them

protected:
    virtual Out& room(std::size_t size) = 0;  // where the next message goes, with room for `size` bytes
    virtual void committed(std::size_t /*size*/, std::size_t /*messages*/) {}  // the last `size` bytes are so many
    void abandon() {                                                           // what was begun and not committed
        if (out_) std::exchange(out_, nullptr)->sizeIs(start_);
    }

private:
    Out* out_ = nullptr;  // of a message begun and not committed, else null
    std::size_t start_ = 0;
    std::size_t lengthSize_ = 0;  // bytes
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
    std::size_t capacity() const { return out_.capacity(); }  // bytes of memory
    void take(std::size_t count) {
        taken_ += count;
        if (taken_ == out_.size()) clear();
    }
    void add(std::span<U8 const> bytes);  // whole messages, or the rest of one
    // Drops what was taken, when that is at least as much as is left: so no byte is moved for more than one that was
    // taken, and never more than twice what is left is held. Memory beyond `kept` bytes goes when half of those would
    // do.
    // REQUIRES: bytes that bytes() gave are not needed any more.
    void compact(std::size_t kept);
    void clear() {
        out_.clear();
        taken_ = 0;
    }

    U64 messages() const { return messages_; }  // begun here and committed, ever

private:
    Out& room(std::size_t) override { return out_; }
    void committed(std::size_t, std::size_t messages) override { messages_ += messages; }
    Out out_;
    std::size_t taken_ = 0;
    U64 messages_ = 0;
};

}  // namespace Vel::NboAttrLog
