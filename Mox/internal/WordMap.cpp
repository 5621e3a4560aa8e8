#include "Mox/internal/WordMap.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

namespace Mox::Detail {

namespace {

constexpr std::size_t blockBytes = Presence::buckets * sizeof(U64);
constexpr unsigned repackBelow = WordMap::maxPacked / 2;  // well below maxPacked, so that a map seldom switches back

U64* allocateWords(unsigned count) {
    auto* const words = static_cast<U64*>(std::malloc(count * sizeof(U64)));
    if (!words) throw std::bad_alloc();
    return words;
}

// Returns the bits of those buckets in `group` that are in [limit, 256).
U64 bitsFrom(unsigned limit, unsigned group) {
    if (limit >= group * 64 + 64) return 0;
    return limit <= group * 64 ? ~U64(0) : ~U64(0) << (limit % 64);
}

}  // namespace

// --- storage ---

WordMap::WordMap(WordMap const& other) : stored_(other.stored_), changeCounter_(other.changeCounter_) {
    if (size() > maxPacked) {
        U64* const block = takeBlock();
        heap_ = block;
        capacity_ = buckets;
        std::memcpy(block, other.heap_, blockBytes);  // a map of more than maxPacked words is always direct
        return;
    }
    makeRoom(size());
    if (other.isDirect())
        other.forEach([to = words()](unsigned, U64 word) mutable { *to++ = word; });
    else
        std::copy_n(other.words(), size(), words());
}

WordMap::WordMap(Block block, Presence const& stored, Others others) : stored_(stored) {
    if (size() < repackBelow) {
        makeRoom(size());
        forEachBucket([to = words(), &block](unsigned bucket) mutable { *to++ = block[bucket]; });
        return;
    }
    heap_ = block.release();
    capacity_ = buckets;
    if (others == Others::zero) return;
    for (unsigned group = 0; group < Presence::groups; ++group)
        for (U64 rest = ~stored_.bits[group]; rest; rest &= rest - 1)
            heap_[group * 64 + static_cast<unsigned>(std::countr_zero(rest))] = 0;
}

WordMap& WordMap::operator=(WordMap const& other) {
    if (this != &other) *this = WordMap(other);
    return *this;
}

WordMap& WordMap::operator=(WordMap&& other) noexcept {
    if (this == &other) return *this;
    U32 const changes = changeCounter_;
    release();
    take(other);
    changeCounter_ = changes + 1;
    return *this;
}

void WordMap::release() {
    if (isDirect())
        giveBlock(heap_);
    else if (capacity_ > inlineWords)
        std::free(heap_);
}

// Moves the words of `other`, which becomes empty. REQUIRES: this map owns no memory.
void WordMap::take(WordMap& other) noexcept {
    stored_ = other.stored_;
    std::memcpy(inline_, other.inline_, sizeof inline_);  // also copies heap_, which is in the same union
    capacity_ = other.capacity_;
    changeCounter_ = other.changeCounter_;
    other.stored_ = Presence();
    other.capacity_ = inlineWords;
    ++other.changeCounter_;
}

void WordMap::clear() {
    release();
    stored_ = Presence();
    capacity_ = inlineWords;
    ++changeCounter_;
}

// Allocates room for exactly `count` packed words. REQUIRES: the map has no words and owns no memory.
void WordMap::makeRoom(unsigned count) {
    if (count <= inlineWords) return;
    heap_ = allocateWords(count);
    capacity_ = static_cast<U16>(count);
}

void WordMap::reserve(unsigned capacity) {
    U64* const words = allocateWords(capacity);
    std::copy_n(this->words(), size(), words);
    release();
    heap_ = words;
    capacity_ = static_cast<U16>(capacity);
}

void WordMap::makeDirect() {
    U64* const words = takeBlock();
    clearWords(words, buckets);
    forEach([&](unsigned bucket, U64 word) { words[bucket] = word; });
    release();
    heap_ = words;
    capacity_ = buckets;
}

void WordMap::makePacked() {
    WordMap packed;
    packed.makeRoom(size());
    forEach([to = packed.words()](unsigned, U64 word) mutable { *to++ = word; });
    packed.stored_ = stored_;
    packed.changeCounter_ = changeCounter_;
    release();
    take(packed);
}

// Enlarges a packed map, so that it can have this many words. REQUIRES: it cannot yet.
void WordMap::makeRoomFor(unsigned count) {
    static constexpr unsigned steps[] = {18, 32, maxPacked};  // few allocations, little unused room
    unsigned const* const step = std::lower_bound(std::begin(steps), std::end(steps), count);
    if (step == std::end(steps))
        makeDirect();
    else
        reserve(*step);
}

void WordMap::fill(unsigned from, unsigned to) {
    Presence filled = stored_;
    for (unsigned group = 0; group < Presence::groups; ++group)
        filled.bits[group] |= bitsFrom(from, group) & ~bitsFrom(to, group);
    filled.recount();
    if (!isDirect() && filled.count() > capacity_) makeRoomFor(filled.count());
    if (!isDirect() && filled.count() != size()) {
        U64* const behind = words() + (to < buckets ? stored_.rank(to) : size());
        std::copy_backward(behind, words() + size(), words() + filled.count());
    }
    std::fill_n(words() + (isDirect() ? from : stored_.rank(from)), to - from, ~U64(0));
    changeCounter_ += filled.count() - size();
    stored_ = filled;
}

void WordMap::insert(unsigned bucket, U64 word) {
    if (!isDirect() && size() == capacity_) makeRoomFor(size() + 1);
    if (isDirect()) {
        heap_[bucket] = word;
    } else {
        U64* const place = words() + stored_.rank(bucket);
        U64* const end = words() + size();
        std::copy_backward(place, end, end + 1);
        *place = word;
    }
    stored_.insert(bucket);
    ++changeCounter_;
}

U64 WordMap::erase(unsigned bucket) {
    if (!contains(bucket)) return 0;
    U64 word = 0;
    if (isDirect()) {
        word = std::exchange(heap_[bucket], 0);
    } else {
        U64* const place = words() + stored_.rank(bucket);
        word = *place;
        std::copy(place + 1, words() + size(), place);
    }
    stored_.erase(bucket);
    ++changeCounter_;
    if (isDirect() && size() < repackBelow) {
        makePacked();
    } else if (size() == 0 && capacity_ > inlineWords) {
        release();
        capacity_ = inlineWords;
    }
    return word;
}

// --- algebra ---

// Returns an array of words by bucket: the map's own if it is direct, else `room`, which is filled.
U64 const* WordMap::expanded(U64 (&room)[buckets]) const {
    if (isDirect()) return heap_;
    clearWords(room, buckets);
    forEach([&](unsigned bucket, U64 word) { room[bucket] = word; });
    return room;
}

// Returns a map of packed words, whose buckets are in `stored`.
WordMap WordMap::ofPacked(U64 const* words, Presence const& stored) {
    if (stored.count() > maxPacked) return WordMap(stored, [words]() mutable { return *words++; });
    WordMap result;
    result.makeRoom(stored.count());
    result.stored_ = stored;
    std::copy_n(words, stored.count(), result.words());
    return result;
}

// Combines two maps by a walk over their stored words only. For results of few words.
template <SetOp op> WordMap WordMap::merged(WordMap const& a, WordMap const& b, unsigned limit) {
    constexpr bool ofBoth = op == SetOp::unite || op == SetOp::exclude;
    U64 words[2 * maxPacked];  // enough: a or b is packed, and for a union both are
    unsigned count = 0;
    Presence stored;
    U64 const* aAt = a.words();
    U64 const* bAt = b.words();
    [[maybe_unused]] U64 const* const aLast = aAt + std::max(a.size(), 1u) - 1;
    [[maybe_unused]] U64 const* const bLast = bAt + std::max(b.size(), 1u) - 1;
    for (unsigned group = 0; group < Presence::groups; ++group) {
        U64 const aBits = a.stored_.bits[group];
        U64 const bBits = b.stored_.bits[group];
        U64 const kept = bitsFrom(limit, group);
        U64 bits = aBits & kept;
        U64 rest = (ofBoth ? aBits | bBits : op == SetOp::subtract ? aBits : aBits & bBits) & ~kept;
        for (; rest; rest &= rest - 1) {
            U64 const bit = rest & (~rest + 1);
            unsigned const bucket = group * 64 + static_cast<unsigned>(std::countr_zero(rest));
            U64 mine = 0;
            U64 theirs = 0;
            if constexpr (ofBoth) {  // no branches on which buckets are stored: the processor could not predict them
                bool const inA = (aBits & bit) != 0;
                bool const inB = (bBits & bit) != 0;
                mine = *std::min(aAt, aLast) & (~U64(inA) + 1);
                theirs = *std::min(bAt, bLast) & (~U64(inB) + 1);
                aAt += inA;
                bAt += inB;
            } else {
                mine = op == SetOp::subtract ? *aAt++ : a.get(bucket);
                theirs = b.get(bucket);
            }
            U64 const word = combinedWord<op>(mine, theirs);
            words[count] = word;
            bits |= word ? bit : 0;
            count += word != 0;
        }
        for (rest = aBits & kept; rest; rest &= rest - 1)
            words[count++] = a.get(group * 64 + static_cast<unsigned>(std::countr_zero(rest)));
        stored.append(group, bits, count);
    }
    return ofPacked(words, stored);
}

// Returns the union or the exclusive or of two packed maps. Leaves the work to merged() if a word is or becomes 0, or
// if a bucket at or above the limit is stored.
template <SetOp op> WordMap WordMap::joined(WordMap const& a, WordMap const& b, unsigned limit) {
    if (a.next(limit) != buckets || b.next(limit) != buckets) return merged<op>(a, b, limit);
    auto* const merge = op == SetOp::unite ? wordKernels().unite : wordKernels().exclude;
    U64 words[maxPacked];
    clearWords(words, std::min(a.size() + b.size(), maxPacked));
    Presence stored;
    switch (merge(a.words(), a.stored_, b.words(), b.stored_, words, stored)) {
    case WordKernels::Merged::whole:
        return ofPacked(words, stored);
    case WordKernels::Merged::withZeros:
        return merged<op>(a, b, limit);
    case WordKernels::Merged::tooMany:
        break;
    }
    U64 room[buckets];
    return combinedBlocks(a, b.expanded(room), op, limit);
}

WordMap WordMap::combinedBlocks(WordMap const& a, U64 const* with, SetOp op, unsigned limit) {
    U64 room[buckets];
    Block block(takeBlock());
    Presence stored;
    wordKernels().combine[static_cast<unsigned>(op)](a.expanded(room), with, block.get(), stored);
    for (unsigned group = limit / 64; group < Presence::groups; ++group) {
        U64 const kept = bitsFrom(limit, group);
        U64 const present = a.stored_.bits[group] & kept;
        U64 const computed = stored.bits[group] & kept;
        stored.bits[group] ^= computed ^ present;
        for (U64 rest = present | computed; rest; rest &= rest - 1) {
            unsigned const bucket = group * 64 + static_cast<unsigned>(std::countr_zero(rest));
            block[bucket] = a.get(bucket);
        }
        if (present | computed) stored.recount();
    }
    return WordMap(std::move(block), stored, Others::zero);
}

WordMap WordMap::combined(WordMap const& a, WordMap const& b, SetOp op, unsigned limit) {
    if (limit == 0) return a;
    bool const packed = !a.isDirect() && !b.isDirect();
    if (op == SetOp::unite && packed) return joined<SetOp::unite>(a, b, limit);
    if (op == SetOp::exclude && packed) return joined<SetOp::exclude>(a, b, limit);
    if (op == SetOp::subtract && !a.isDirect()) return merged<SetOp::subtract>(a, b, limit);
    // From the limit up all words of a remain, so a direct map could have too many words for merged().
    if (op == SetOp::intersect && (packed || (!a.isDirect() != !b.isDirect() && limit >= buckets - 1)))
        return merged<SetOp::intersect>(a, b, limit);
    U64 room[buckets];
    return combinedBlocks(a, b.expanded(room), op, limit);
}

WordMap WordMap::complemented(unsigned limit) const {
    if (limit == 0) return *this;
    U64 ones[buckets];
    std::fill(std::begin(ones), std::end(ones), ~U64(0));
    return combinedBlocks(*this, ones, SetOp::exclude, limit);
}

// --- comparison ---

bool operator==(WordMap const& a, WordMap const& b) {
    if (std::memcmp(a.stored_.bits, b.stored_.bits, sizeof a.stored_.bits) != 0) return false;
    if (a.isDirect() == b.isDirect()) {
        std::size_t const size = a.isDirect() ? blockBytes : a.size() * sizeof(U64);
        return std::memcmp(a.words(), b.words(), size) == 0;
    }
    WordMap::Cursor mine(a);
    WordMap::Cursor theirs(b);
    unsigned bucket = 0;
    U64 x = 0;
    U64 y = 0;
    while (mine.next(bucket, x) && theirs.next(bucket, y))
        if (x != y) return false;
    return true;
}

}  // namespace Mox::Detail
