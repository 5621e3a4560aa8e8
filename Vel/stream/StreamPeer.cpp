#include "Vel/stream/StreamPeer.h"

#include "Vel/base/Exception.h"
#include "Vel/stream/internal/StreamProtocol.h"
#include "Vel/stream/internal/StreamRefusal.h"
#include "Vel/text/PeerText.h"

#include <algorithm>

namespace Vel {

using NboAttrLog::In;
using NboAttrLog::MessageKind;
using NboAttrLog::Out;

namespace {

constexpr std::size_t answerSize = 6;       // bytes of a pong
constexpr std::size_t longestError = 1024;  // bytes; an error may quote several texts of a peer
constexpr std::size_t roomKept = 4096;      // bytes of memory that pending_ keeps between messages

}  // namespace

StreamPeer::~StreamPeer() = default;

std::span<U8 const> StreamPeer::output(std::size_t limit) {
    out_.compact(hasControl() ? keptWhileBusy(limit) : keptWhileIdle);
    takeControl();
    return outFront(limit);
}

void StreamPeer::takeControl() {
    if (!hasControl()) return;
    out_.add(control_.bytes());
    control_.clear();
    if (answers_ != 0) answersEnd_ = outTaken_ + out_.size();
    control_.compact(keptWhileIdle);
}

std::span<U8 const> StreamPeer::outFront(std::size_t limit) const {
    auto const bytes = out_.bytes();
    return bytes.first(std::min(limit, bytes.size()));
}

void StreamPeer::outputTaken(std::size_t count) {
    out_.take(count);
    outTaken_ += count;
    if (answers_ != 0 && !hasControl() && outTaken_ >= answersEnd_) answers_ = 0;
}

void StreamPeer::input(std::span<U8 const> bytes) {
    if (closing_ || bytes.empty()) return;
    try {
        // Completes the message that has begun first, so that the bytes after it need not be copied.
        while (!bytes.empty() && !closing_ && !pending_.empty()) completeMessage(bytes);
        if (bytes.empty() || closing_) return;
        pendingIs(bytes.subspan(inputFrames(bytes)));
    } catch (ReadOnlyException const& error) {
        refuse(peerText(error.text(), longestError));
    } catch (StreamRefusalException const& error) {
        fail(peerText(error.text(), longestError), error.fault());
    } catch (std::exception const& error) {
        fail(peerText(error.what(), longestError));
    }
}

// Moves the bytes that the message still needs from the front of `bytes` to pending_. Its memory grows with the bytes
// that have come, and not beyond what the message needs.
void StreamPeer::completeMessage(std::span<U8 const>& bytes) {
    auto const head = NboAttrLog::messageLength(pending_);
    std::size_t const need = head.size == 0 ? pending_.size() + 1 : head.size + head.length;
    std::size_t const more = std::min(bytes.size(), need - pending_.size());
    if (std::size_t const size = pending_.size() + more; size > pending_.capacity())
        pending_.reserve(std::max(size, std::min(2 * size, need)));
    pending_.insert(pending_.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(more));
    bytes = bytes.subspan(more);
    if (inputFrames(pending_) != 0) pendingIs({});
}

// Keeps the beginning of a message. Frees the memory of a large message before.
void StreamPeer::pendingIs(std::span<U8 const> bytes) {
    if (closing_) return;
    if (pending_.capacity() > std::max(roomKept, bytes.size())) std::vector<U8>().swap(pending_);
    pending_.assign(bytes.begin(), bytes.end());
}

// Handles the complete messages at the front, and returns how many bytes they have.
std::size_t StreamPeer::inputFrames(std::span<U8 const> bytes) {
    std::size_t used = 0;
    while (!closing_) {
        auto const [size, length] = NboAttrLog::messageLength(bytes.subspan(used));
        if (size == 0) break;
        if (length == 0) throw StreamException("a message without a kind", used);
        std::size_t const most = isGreeted_ ? limits_.frame : std::min(limits_.hello, limits_.frame);
        if (length > most) {
            bool const isHello =
                bytes.size() - used > size && bytes[used + size] == static_cast<U8>(MessageKind::hello);
            if (isHello && !isGreeted_) {  // the sender may mean well, so it is told why
                refuse(format("a hello of %lu bytes, where the server takes at most %zu", length, most));
                break;
            }
            throw StreamException(format("a message of %lu bytes, where at most %zu are taken", length, most), used);
        }
        if (bytes.size() - used - size < length) {
            // Refuse an unknown kind as soon as its byte is here: do not wait for `length` bytes of some other
            // protocol.
            if (bytes.size() - used == size) break;
            U8 const kind = bytes[used + size];
            if (kind == 0 || kind > static_cast<U8>(NboAttrLog::lastMessageKind))
                throw StreamException(format("no message is of kind %u", kind), used);
            break;
        }
        inputMessage(bytes.subspan(used + size, length));
        used += size + length;
    }
    return used;
}

void StreamPeer::inputMessage(std::span<U8 const> message) {
    auto const kind = static_cast<MessageKind>(message[0]);
    In body(message.subspan(1));
    bool const isPing = kind == MessageKind::ping;
    if (isPing || kind == MessageKind::pong) {
        if (!isGreeted_) throw StreamException(format("no message of kind %u comes first", message[0]), 0);
        U32 const token = body.nextU32();
        needEnd(body);
        if (isPing)
            answerPing(token);
        else
            ++pongs_;
    } else if (kind == MessageKind::refused) {
        String const text = body.nextString();
        fail("refused: " + peerText(text.view()), faultOf(text.view()));
    } else {
        handleMessage(kind, body);
        isGreeted_ = isGreeted_ || !closing_;
    }
    ++messagesIn_;
}

// All answers that are not sent count, in control_ as in out_.
void StreamPeer::answerPing(U32 token) {
    if (answers_ + answerSize > limits_.answers)
        throw StreamException("pings come faster than their answers are taken", 0);
    answers_ += answerSize;
    sendControl(MessageKind::pong, 4, [&](Out& out) { out << token; });
}

void StreamPeer::ping(U32 token) {
    sendControl(MessageKind::ping, 4, [&](Out& out) { out << token; });
}

void StreamPeer::fail(String const& reason, StreamFault fault) {
    if (closing_) return;
    closing_ = true;
    fault_ = reason.empty() ? StreamFault::none : fault;
    error_ = reason;
    std::vector<U8>().swap(pending_);
}

void StreamPeer::refuse(String const& reason, StreamFault fault) {
    if (closing_) return;
    hasRefused_ = true;
    bool const wanted = wantsOutput();
    control_.begin(MessageKind::refused, 4 + reason.length()) << reason;
    control_.commit();
    fail(reason, fault);
    if (!wanted) wake();
}

void StreamPeer::closed(String const& reason) {
    fail(reason);
    control_.clear();
    out_.clear();
}

void StreamPeer::reset() {
    closing_ = false;
    error_ = String();
    fault_ = StreamFault::none;
    control_.clear();
    out_.clear();
    pending_.clear();
    answers_ = 0;
    isGreeted_ = hasRefused_ = false;
}

void StreamPeer::wake() {
    if (wake_) wake_();
}

}  // namespace Vel
