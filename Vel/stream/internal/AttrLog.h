#pragma once

#include "Vel/text/OutSm.h"

#include <memory>
#include <vector>

namespace Vel::NboAttrLog {

// Messages that many readers share: each is encoded once, into chunks that stay until every reader is past them.
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
    std::size_t sizeFrom(Position at) const;    // bytes behind it. REQUIRES: tail() <= at <= head()
    // Bytes that lie in one piece from there on, at most `limit`; empty at the head. Moves `at` over a chunk's end.
    // REQUIRES: tail() <= at <= head()
    std::span<U8 const> read(Position& at, std::size_t limit) const;
    std::shared_ptr<Out const> chunk(Position at) const { return chunks_[at.chunk - firstChunk_]; }  // keeps its bytes
    // Drops whole chunks in front of `before`. Their memory is used again when nobody keeps it.
    void drop(Position before);

    // Calls rest(bytes) for what is left of the message that `from` stands in, if it stands in one, then
    // message(bytes) for each whole message up to the head: its kind and body.
    template <class Rest, class Message> void scan(Position from, Rest rest, Message message) const {
        for (U64 c = from.chunk; c < firstChunk_ + chunks_.size(); ++c) {
            auto const bytes = chunks_[c - firstChunk_]->bytes();
            for (std::size_t at = 0; at < bytes.size();) {
                MessageLength const head = messageLength(bytes.subspan(at));
                std::size_t const size = head.size + head.length;
                if (c > from.chunk || at >= from.offset)
                    message(bytes.subspan(at + head.size, head.length));
                else if (at + size > from.offset)
                    rest(bytes.subspan(from.offset, at + size - from.offset));
                at += size;
            }
        }
    }

    U64 messages() const { return messages_; }  // ever

private:
    Out& room(std::size_t size) override;
    void committed(std::size_t size, std::size_t messages) override {
        size_ += size;
        messages_ += messages;
    }

    // Never empty: the head is in the last one. Messages do not cross chunks.
    std::size_t chunkSize_;
    std::vector<std::shared_ptr<Out>> chunks_;  // not many, and a deque would allocate as it moves on
    std::vector<std::shared_ptr<Out>> free_;
    U64 firstChunk_ = 0;
    std::size_t size_ = 0;
    U64 messages_ = 0;
};

}  // namespace Vel::NboAttrLog
