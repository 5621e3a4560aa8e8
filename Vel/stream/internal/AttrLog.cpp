#include "Vel/stream/internal/AttrLog.h"

#include <algorithm>

namespace Vel::NboAttrLog {

namespace {

// How many dropped chunks are kept for use again: about as many as a full log has. They are dropped together if all
// readers catch up at once.
constexpr std::size_t mostFree = 16;

}  // namespace

AttrLog::AttrLog(std::size_t chunkSize) : chunkSize_(chunkSize) { chunks_.push_back(std::make_shared<Out>()); }
AttrLog::~AttrLog() = default;

Out& AttrLog::room(std::size_t size) {
    Out& last = *chunks_.back();
    if (last.size() == 0) {
        last.reserve(std::max(size, chunkSize_));  // not reserved before, so that an empty log takes no memory
        return last;
    }
    if (last.capacity() - last.size() >= size) return last;
    if (size <= chunkSize_ && !free_.empty()) {
        chunks_.push_back(std::move(free_.back()));
        free_.pop_back();
    } else {
        chunks_.push_back(std::make_shared<Out>(std::max(size, chunkSize_)));
    }
    return *chunks_.back();
}

std::span<U8 const> AttrLog::read(Position& at, std::size_t limit) const {
    for (;;) {
        auto const bytes = chunks_[at.chunk - firstChunk_]->bytes().subspan(at.offset);
        if (!bytes.empty()) return bytes.first(std::min(limit, bytes.size()));
        if (at.chunk - firstChunk_ + 1 == chunks_.size()) return {};
        at = {at.chunk + 1, 0};
    }
}

std::span<U8 const> AttrLog::restOfMessage(Position at) const {
    auto const bytes = chunks_[at.chunk - firstChunk_]->bytes();
    std::size_t end = 0;
    while (end < at.offset) {
        MessageLength const head = messageLength(bytes.subspan(end));
        end += head.size + head.length;
    }
    return bytes.subspan(at.offset, end - at.offset);
}

std::size_t AttrLog::sizeFrom(Position at) const {
    std::size_t before = at.offset;
    for (std::size_t c = 0; c < at.chunk - firstChunk_; ++c) before += chunks_[c]->size();
    return size_ - before;
}

void AttrLog::drop(Position before) {
    while (chunks_.size() > 1 && firstChunk_ < before.chunk) {
        std::shared_ptr<Out> chunk = std::move(chunks_.front());
        chunks_.erase(chunks_.begin());
        ++firstChunk_;
        size_ -= chunk->size();
        if (chunk.use_count() != 1 || chunk->capacity() > chunkSize_ || free_.size() >= mostFree) continue;
        chunk->clear();
        free_.push_back(std::move(chunk));
    }
}

}  // namespace Vel::NboAttrLog
