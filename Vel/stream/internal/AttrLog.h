#pragma once

#include "Vel/text/OutSm.h"

#include <memory>
#include <vector>

namespace Vel::NboAttrLog {

// Messages that many readers share. Each is encoded once, into a chunk. A chunk stays until all readers are past it.
class VEL_API AttrLog final : public OutSm {
public:
    explicit AttrLog(std::size_t chunkSize);  // bytes; a longer message has a chunk of its own

    // A place between two bytes of the log.
    struct Position {
        U64 chunk = 0;
        std::size_t offset = 0;  // bytes from the chunk's beginning
        friend bool operator==(Position const&, Position const&) = default;
        friend auto operator<=>(Position const&, Position const&) = default;
    };

    ~AttrLog() override;

    Position head() const { return {firstChunk_ + chunks_.size() - 1, chunks_.back()->size()}; }
    Position tail() const { return {firstChunk_, 0}; }
    std::size_t size() const { return size_; }  // bytes held
    std::size_t sizeFrom(Position at) const;    // bytes from `at` to the head. REQUIRES: tail() <= at <= head()
    // Returns bytes from `at` on that lie in one chunk, at most `limit`. The result is empty at the head only. If `at`
    // is at the end of a chunk, moves it to the next one. REQUIRES: tail() <= at <= head()
    std::span<U8 const> read(Position& at, std::size_t limit) const;
    // Returns the rest of the message that `at` is within. The result is empty if `at` is between two messages.
    std::span<U8 const> restOfMessage(Position at) const;
    // The chunk in which `at` is. Its bytes stay while it is held.
    std::shared_ptr<Out const> chunk(Position at) const { return chunks_[at.chunk - firstChunk_]; }
    // Drops the chunks before the one in which `before` is. The memory of a chunk that nobody holds may be used again.
    void drop(Position before);

    // Calls message(bytes) for each whole message from `from` up to the head, with its kind and body.
    template <class Message> void scan(Position from, Message message) const {
        for (U64 c = from.chunk; c < firstChunk_ + chunks_.size(); ++c) {
            auto const bytes = chunks_[c - firstChunk_]->bytes();
            for (std::size_t at = 0; at < bytes.size();) {
                MessageLength const head = messageLength(bytes.subspan(at));
                std::size_t const size = head.size + head.length;
                if (c > from.chunk || at >= from.offset) message(bytes.subspan(at + head.size, head.length));
                at += size;
            }
        }
    }

    U64 messages() const { return messages_; }  // number of messages so far

private:
    Out& room(std::size_t size) override;
    void committed(std::size_t size, std::size_t messages) override {
        size_ += size;
        messages_ += messages;
    }

    // There is always a chunk, since the head is in the last one. No message crosses the end of a chunk.
    std::size_t chunkSize_;
    std::vector<std::shared_ptr<Out>> chunks_;  // there are few, and a deque allocates as it moves on
    std::vector<std::shared_ptr<Out>> free_;
    U64 firstChunk_ = 0;
    std::size_t size_ = 0;
    U64 messages_ = 0;
};

}  // namespace Vel::NboAttrLog
