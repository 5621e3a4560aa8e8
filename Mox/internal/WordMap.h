#pragma once

#include "Mox/internal/WordBlock.h"
#include "Mox/internal/WordKernels.h"

#include <cstddef>

// The ordered map from an 8-bit bucket to a 64-bit word in which an id set keeps its members.
namespace Mox::Detail {

// Invariants:
// 1. stored_ tells which buckets are stored.
// 2. Packed (capacity_ below 256): the stored words lie in ascending order of their buckets at words()[0, size()).
// 3. Direct (capacity_ 256): bucket b's word is words()[b], 0 when it is not stored.
// 4. capacity_ is inlineWords, and the words are within the object, until more are stored; an empty map is so again.
// A stored word may be 0.
class VEL_API WordMap {
public:
    static constexpr unsigned buckets = Presence::buckets;
    static constexpr unsigned inlineWords = 2;
    static constexpr unsigned maxPacked =
        WordKernels::maxMerged;  // more words than this are stored directly: a map of them costs 2 KiB
    class Cursor;

    WordMap() noexcept : inline_{} {}  // not defaulted, so that a const map needs no braces
    WordMap(WordMap const& other);     // allocates once at most, exactly sized
    WordMap(WordMap&& other) noexcept { take(other); }
    enum class Others : bool { zero, any };                       // what stands in a block where nothing is stored
    WordMap(Block block, Presence const& stored, Others others);  // packs few words, else keeps the block
    // The words of those buckets: next() yields them in ascending order. Packed where possible, and exactly sized.
    template <class Next> WordMap(Presence const& stored, Next next);
    WordMap& operator=(WordMap const& other);
    WordMap& operator=(WordMap&& other) noexcept;
    ~WordMap() { release(); }

    unsigned size() const { return stored_.count(); }     // words stored
    U32 changeCounter() const { return changeCounter_; }  // moves whenever a bucket comes or goes
    std::size_t allocatedBytes() const { return capacity_ > inlineWords ? capacity_ * sizeof(U64) : 0; }
    bool isDirect() const { return capacity_ == buckets; }
    bool contains(unsigned bucket) const { return stored_.contains(bucket); }
    Presence const& stored() const { return stored_; }
    U64 const* words() const { return capacity_ == inlineWords ? inline_ : heap_; }  // see the invariants

    U64 get(unsigned bucket) const {  // 0 when it is not stored
        if (isDirect()) return heap_[bucket];
        return contains(bucket) ? words()[stored_.rank(bucket)] : 0;
    }
    void set(unsigned bucket, U64 word) {  // also 0
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
    U64 erase(unsigned bucket);  // what was stored, or 0
    void clear();

    unsigned next(unsigned from) const { return stored_.next(from); }  // the first stored bucket from there; or buckets
    // f(bucket, word) for every stored word, ascending. REQUIRES: f changes nothing here.
    template <class F> void forEach(F f) const {
        if (isDirect())
            forEachBucket([&](unsigned bucket) { f(bucket, heap_[bucket]); });
        else
            forEachBucket([&, at = words()](unsigned bucket) mutable { f(bucket, *at++); });
    }
    // Whether p(bucket, word) holds for every stored word; looks no further once it does not.
    template <class P> bool allOf(P p) const;
    U32 bitsSet() const { return wordKernels().bitsSet(words(), isDirect() ? buckets : size()); }

    // a op b, word by word, in the buckets of [0, limit), where no word that is 0 is stored; what a stores in the
    // buckets from `limit` up.
    static WordMap combined(WordMap const& a, WordMap const& b, SetOp op, unsigned limit);
    WordMap complemented(unsigned limit) const;

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

// Walks the stored words in ascending order. Changing the map ends the walk's meaning.
class WordMap::Cursor {
public:
    Cursor() = default;
    explicit Cursor(WordMap const& map)
        : groups_(map.stored_.bits), at_(map.words()), rest_(groups_[0]), group_(0), isDirect_(map.isDirect()) {}

    // The next bucket and its word; false at the end.
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
    U64 const* at_ = nullptr;  // packed: the next word; direct: the first
    U64 rest_ = 0;             // the group's buckets that are still to come
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
        } else {  // without gaps: no search for them
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
