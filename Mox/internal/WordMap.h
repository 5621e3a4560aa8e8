#pragma once

#include "Mox/internal/WordBlock.h"
#include "Mox/internal/WordKernels.h"

#include <cstddef>

// The ordered map from an 8-bit bucket to a 64-bit word in which an id set keeps its members.
namespace Mox::Detail {

// Invariants:
// 1. stored_ has the buckets that are stored.
// 2. Packed (capacity_ below 256): the stored words are at words()[0, size()), in ascending order of their buckets.
// 3. Direct (capacity_ 256): bucket b's word is words()[b], which is 0 if the bucket is not stored.
// 4. While the map has never had more than inlineWords words, or once it is empty again, capacity_ is inlineWords and
//    the words are within the object.
// A stored word may be 0.
class VEL_API WordMap {
public:
    static constexpr unsigned buckets = Presence::buckets;
    static constexpr unsigned inlineWords = 2;
    static constexpr unsigned maxPacked =
        WordKernels::maxMerged;  // more words than this are stored directly: a map of them costs 2 KiB
    class Cursor;

    WordMap() noexcept : inline_{} {}  // not defaulted, so that a const map needs no braces
    WordMap(WordMap const& other);     // allocates at most once, for exactly the words
    WordMap(WordMap&& other) noexcept { take(other); }
    enum class Others : bool { zero, any };                       // what a block has at buckets that are not stored
    WordMap(Block block, Presence const& stored, Others others);  // packs few words, else keeps the block
    // Makes a map of these buckets; next() returns their words in ascending order. The map is packed if it may be, and
    // sized exactly.
    template <class Next> WordMap(Presence const& stored, Next next);
    WordMap& operator=(WordMap const& other);
    WordMap& operator=(WordMap&& other) noexcept;
    ~WordMap() { release(); }

    unsigned size() const { return stored_.count(); }     // words stored
    U32 changeCounter() const { return changeCounter_; }  // changes whenever a bucket is added or removed
    std::size_t allocatedBytes() const { return capacity_ > inlineWords ? capacity_ * sizeof(U64) : 0; }
    bool isDirect() const { return capacity_ == buckets; }
    bool contains(unsigned bucket) const { return stored_.contains(bucket); }
    Presence const& stored() const { return stored_; }
    U64 const* words() const { return capacity_ == inlineWords ? inline_ : heap_; }  // in the order of invariants 2, 3

    U64 get(unsigned bucket) const {  // 0 if the bucket is not stored
        if (isDirect()) return heap_[bucket];
        return contains(bucket) ? words()[stored_.rank(bucket)] : 0;
    }
    void set(unsigned bucket, U64 word) {  // stores the word even if it is 0
        if (contains(bucket)) [[likely]]
            word_(bucket) = word;
        else
            insert(bucket, word);
    }
    // Adds bits to a bucket's word; returns the former word. REQUIRES: bits is not 0
    U64 add(unsigned bucket, U64 bits) {
        if (contains(bucket)) [[likely]] {
            U64& word = word_(bucket);
            U64 const before = word;
            word |= bits;
            return before;
        }
        insert(bucket, bits);
        return 0;
    }
    // Stores words of all ones in [from, to). REQUIRES: from < to <= buckets.
    void fill(unsigned from, unsigned to);
    U64 erase(unsigned bucket);  // returns the word that was stored, or 0
    void clear();

    unsigned next(unsigned from) const { return stored_.next(from); }  // the first stored one at or above; or `buckets`
    // Calls f(bucket, word) for every stored word, in ascending order. REQUIRES: f does not change the map.
    template <class F> void forEach(F f) const {
        if (isDirect())
            forEachBucket([&](unsigned bucket) { f(bucket, heap_[bucket]); });
        else
            forEachBucket([&, at = words()](unsigned bucket) mutable { f(bucket, *at++); });
    }
    // Whether p(bucket, word) holds for every stored word. Stops at the first for which it does not.
    template <class P> bool allOf(P p) const;
    U32 bitsSet() const { return wordKernels().bitsSet(words(), isDirect() ? buckets : size()); }

    // Returns a map with `a op b` in the buckets below `limit`, where words that are 0 are not stored, and with the
    // words of a from `limit` up.
    static WordMap combined(WordMap const& a, WordMap const& b, SetOp op, unsigned limit);
    WordMap complemented(unsigned limit) const;  // all bits inverted in the buckets below `limit`

    friend VEL_API bool operator==(WordMap const& a, WordMap const& b);

private:
    U64* words() { return capacity_ == inlineWords ? inline_ : heap_; }
    U64& word_(unsigned bucket) {  // REQUIRES: stored
        return isDirect() ? heap_[bucket] : words()[stored_.rank(bucket)];
    }
    template <class F> void forEachBucket(F f) const {
        for (unsigned group = 0; group < Presence::groups; ++group)
            for (U64 rest = stored_.bits[group]; rest; rest &= rest - 1)
                f(group * 64 + static_cast<unsigned>(std::countr_zero(rest)));
    }
    template <SetOp op> static WordMap merged(WordMap const& a, WordMap const& b, unsigned limit);
    template <SetOp op> static WordMap joined(WordMap const& a, WordMap const& b, unsigned limit);
    static WordMap combinedBlocks(WordMap const& a, U64 const* with, SetOp op, unsigned limit);
    static WordMap ofPacked(U64 const* words, Presence const& stored);
    U64 const* expanded(U64 (&room)[buckets]) const;
    void insert(unsigned bucket, U64 word);
    void makeRoomFor(unsigned count);
    void makeRoom(unsigned count);
    void reserve(unsigned capacity);
    void makeDirect();
    void makePacked();
    void release();
    void take(WordMap& other) noexcept;

    Presence stored_;
    union {
        U64 inline_[inlineWords];
        U64* heap_;
    };
    U32 changeCounter_ = 0;
    U16 capacity_ = inlineWords;
};

// Walks the stored words in ascending order of their buckets. REQUIRES: the map does not change during the walk.
class WordMap::Cursor {
public:
    Cursor() = default;
    explicit Cursor(WordMap const& map)
        : groups_(map.stored_.bits), at_(map.words()), rest_(groups_[0]), group_(0), isDirect_(map.isDirect()) {}

    // Sets `bucket` and `word` to the next stored ones. Returns false at the end.
    bool next(unsigned& bucket, U64& word) {
        while (rest_ == 0) {
            if (group_ + 1u >= Presence::groups) return false;
            rest_ = groups_[++group_];
        }
        bucket = group_ * 64u + static_cast<unsigned>(std::countr_zero(rest_));
        rest_ &= rest_ - 1;
        word = isDirect_ ? at_[bucket] : *at_++;
        return true;
    }

private:
    U64 const* groups_ = nullptr;
    U64 const* at_ = nullptr;  // packed: the next word; direct: the word of bucket 0
    U64 rest_ = 0;             // buckets of the group that are still to be visited
    U8 group_ = Presence::groups;
    bool isDirect_ = false;
};

template <class Next> WordMap::WordMap(Presence const& stored, Next next) : stored_(stored) {
    if (size() <= maxPacked) {
        makeRoom(size());
        U64* const to = words();
        for (unsigned i = 0; i < stored.count(); ++i) to[i] = next();
        return;
    }
    U64* to = takeBlock();
    heap_ = to;
    capacity_ = buckets;
    for (unsigned group = 0; group < Presence::groups; ++group, to += 64) {
        U64 rest = stored.bits[group];
        if (rest & (rest + 1)) {
            clearWords(to, 64);
            for (; rest; rest &= rest - 1) to[static_cast<unsigned>(std::countr_zero(rest))] = next();
        } else {  // the stored buckets have no gaps: copy them in one run
            unsigned const count = static_cast<unsigned>(std::countr_one(rest));
            unsigned i = 0;
            for (; i + 4 <= count; i += 4) {
                to[i] = next();
                to[i + 1] = next();
                to[i + 2] = next();
                to[i + 3] = next();
            }
            for (; i < count; ++i) to[i] = next();
            clearWords(to + count, 64 - count);
        }
    }
}

template <class P> bool WordMap::allOf(P p) const {
    Cursor cursor(*this);
    unsigned bucket = 0;
    U64 word = 0;
    while (cursor.next(bucket, word))
        if (!p(bucket, word)) return false;
    return true;
}

}  // namespace Mox::Detail
