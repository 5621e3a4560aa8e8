#pragma once

#include "Vel/text/NboAttrLog.h"

#include <utility>

// Messages of an attribute log. A message is its length, its kind, and a body of compact numbers and items; see
// docs/streaming.md.
namespace Vel::NboAttrLog {

// A number in 1, 2, 4 or 8 bytes: the variable-length integer of RFC 9000, section 16. Its first two bits say how many
// bytes it has; the rest is in network byte order. Most numbers are small, so this saves bytes for each change and
// reader.
struct Compact {
    U32 number;
    friend Out& operator<<(Out& out, Compact value) { return value.append(out); }

private:
    Out& append(Out& out) const;
};

inline constexpr std::size_t compactSize(U32 number) {  // bytes
    return number < 1u << 6 ? 1 : number < 1u << 14 ? 2 : number < 1u << 30 ? 4 : 8;
}
inline void storeCompact(U8* to, U32 number, std::size_t size) {  // REQUIRES: size is 1, 2, 4 or 8, and large enough
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
VEL_API U32 nextCompact(In& in);  // throws StreamException if the bytes end, or the number has more than 32 bits

// The length at the beginning of a message.
struct MessageLength {
    std::size_t size = 0;  // bytes of the length itself; 0 if they are not all there yet
    U64 length = 0;        // bytes that follow: the kind and the body
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

// Returns the body of a message. REQUIRES: the message is complete.
inline std::span<U8 const> messageBody(std::span<U8 const> message) {
    return message.subspan(messageLength(message).size + 1);
}

enum class MessageKind : U32 {
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
    keysEnd = 15,
    answer = 16,
    values = 17,
    writeValues = 18,
    call = 19,
    description = 20
};
inline constexpr MessageKind lastMessageKind = MessageKind::description;

// Writes messages: each is begun, filled and committed. A message that was not committed, for example because of an
// exception, is dropped when the next one begins.
class VEL_API OutSm {
public:
    OutSm() = default;
    OutSm(OutSm const&) = delete;
    OutSm& operator=(OutSm const&) = delete;
    virtual ~OutSm();

    // Begins a message, and returns where its body is written. If the body becomes much longer than `bodySize` bytes,
    // commit() has to move it to make room for the length.
    Out& begin(MessageKind kind, std::size_t bodySize);
    Out& out() { return *out_; }  // where the body is written; REQUIRES: a message is begun
    void commit();
    void addMessages(std::span<U8 const> messages, std::size_t count);  // adds complete messages of another output

protected:
    virtual Out& room(std::size_t size) = 0;  // returns where the next message goes, with room for `size` bytes
    // Called after a commit: the last `size` bytes are `messages` complete messages.
    virtual void committed(std::size_t /*size*/, std::size_t /*messages*/) {}
    void abandon() {  // drops the message that was begun and not committed
        if (out_) std::exchange(out_, nullptr)->sizeIs(start_);
    }

private:
    Out* out_ = nullptr;          // where the message that is begun is written; null if none is
    std::size_t start_ = 0;       // offset of that message in *out_
    std::size_t lengthSize_ = 0;  // bytes kept for its length
};

struct VEL_API Impl {
    static void outSmCommitMessage(OutSm& sm) { sm.commit(); }
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
    void add(std::span<U8 const> bytes);  // adds complete messages, or the rest of one; messages() does not count them
    // Drops the bytes that were taken, once they are at least as many as those left. So at most one byte is moved for
    // each byte taken, and at most twice the bytes left are held. If more than `kept` bytes are allocated and the bytes
    // left fit into half of that, reallocates to their size. REQUIRES: spans from bytes() are not used any more.
    void compact(std::size_t kept);
    void clear() {
        out_.clear();
        taken_ = 0;
    }

    U64 messages() const { return messages_; }  // number of messages committed so far

private:
    Out& room(std::size_t) override { return out_; }
    void committed(std::size_t, std::size_t messages) override { messages_ += messages; }
    Out out_;
    std::size_t taken_ = 0;
    U64 messages_ = 0;
};

}  // namespace Vel::NboAttrLog
