#include "Vel/StreamPeer.h"

#include "Vel/Exception.h"

#include <algorithm>

namespace Vel {

using NboAttrLog::In;
using NboAttrLog::MessageKind;
using NboAttrLog::Out;

StreamPeer::~StreamPeer() = default;

std::span<U8 const> StreamPeer::output(std::size_t limit) {
    if (hasControl()) {
        out_.add(control_.bytes());
        control_.clear();
    }
    auto const bytes = out_.bytes();
    return bytes.first(std::min(limit, bytes.size()));
}

void StreamPeer::outputTaken(std::size_t count) { out_.take(count); }

void StreamPeer::input(std::span<U8 const> bytes) {
    if (closing_ || bytes.empty()) return;
    try {
        if (!pending_.empty()) {
            // Completes the one message first, so that what follows need not be copied.
            while (!bytes.empty() && !closing_ && !pending_.empty()) {
                auto const head = NboAttrLog::messageLength(pending_);
                std::size_t const need = head.size == 0 ? pending_.size() + 1 : head.size + head.length;
                std::size_t const more = std::min(bytes.size(), need - pending_.size());
                pending_.insert(pending_.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(more));
                bytes = bytes.subspan(more);
                if (inputFrames(pending_) != 0) pending_.clear();
            }
            if (!pending_.empty()) return;
        }
        std::size_t const used = inputFrames(bytes);
        if (!closing_) pending_.assign(bytes.begin() + static_cast<std::ptrdiff_t>(used), bytes.end());
    } catch (ReadOnlyException const& error) {
        refuse(error.text());
    } catch (std::exception const& error) {
        fail(error.what());
    }
}

// The bytes of the whole messages at the front, which have been taken in.
std::size_t StreamPeer::inputFrames(std::span<U8 const> bytes) {
    std::size_t used = 0;
    while (!closing_) {
        auto const [size, length] = NboAttrLog::messageLength(bytes.subspan(used));
        if (size == 0) break;
        if (length == 0) throw StreamException("a message without a kind", used);
        if (length > limits_.frame)
            throw StreamException(
                format("a message of %lu bytes, where at most %zu are taken", length, limits_.frame), used);
        if (bytes.size() - used - size < length) {
            // Who speaks something else is not listened to until so much of it has come.
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
    if (kind == MessageKind::ping) {
        U32 const token = body.nextU32();
        if (control_.size() > limits_.frame) throw StreamException("pings come faster than their answers are taken", 0);
        sendControl(MessageKind::pong, 4, [&](Out& out) { out << token; });
    } else if (kind == MessageKind::pong) {
        body.nextU32();
        ++pongs_;
    } else if (kind == MessageKind::refused) {
        fail("refused: " + body.nextString());
    } else {
        handleMessage(kind, body);
    }
    ++messagesIn_;
}

void StreamPeer::ping(U32 token) {
    sendControl(MessageKind::ping, 4, [&](Out& out) { out << token; });
}

void StreamPeer::fail(String const& reason) {
    if (closing_) return;
    closing_ = true;
    error_ = reason;
    std::vector<U8>().swap(pending_);
}

void StreamPeer::refuse(String const& reason) {
    if (closing_) return;
    bool const wanted = wantsOutput();
    control_.begin(MessageKind::refused, 4 + reason.length()) << reason;
    control_.commit();
    fail(reason);
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
    control_.clear();
    out_.clear();
    pending_.clear();
}

void StreamPeer::wake() {
    if (wake_) wake_();
}

}  // namespace Vel
