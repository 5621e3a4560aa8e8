#pragma once

#include "Mox/internal/TriePath.h"

#include "Vel/base/TableHash.h"
#include "Vel/base/Types.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <string_view>
#include <utility>

namespace Mox {
class PrefixTrie;
}

// Whole paths and the nodes to which they lead, so that a question to a large trie need not go from node to node.
namespace Mox::Detail {

using Vel::U32;
using Vel::U64;
using Vel::U8;

// A path without stars that becomes longer and shorter by whole components.
class IndexedPath {
public:
    static constexpr U32 maxLength = 256;  // bytes

    U32 length() const { return length_; }
    std::string_view text() const { return {text_, length_}; }
    void lengthIs(U32 shorter) { length_ = shorter; }

    // Appends a component. Returns false if the path would be too long, would have a star, or would be cut into other
    // components than those appended.
    bool push(std::string_view key) {
        if (key.empty() || key.size() > maxLength - length_ || getSeparatorPos(key) != std::string_view::npos ||
            (length_ != 0 && (key[0] | 1) != '/') || key.find('*') != std::string_view::npos)
            return false;
        std::memcpy(text_ + length_, key.data(), key.size());
        length_ += static_cast<U32>(key.size());
        return true;
    }

private:
    U32 length_ = 0;
    char text_[maxLength];
};

constexpr U64 eachByte = 0x0101010101010101ul;
constexpr U64 inOrder(U64 word) {  // the first byte in memory becomes the lowest
    return std::endian::native == std::endian::little ? word : __builtin_bswap64(word);
}
constexpr U64 zeroBytes(U64 word) {  // the high bit of each byte that is 0
    constexpr U64 low = eachByte * 0x7F;
    return ~(((word & low) + low) | word | low);
}

// Where a path is cut, and the hashes of all its prefixes, found in one pass over words of 8 bytes.
//
// A prefix is hashed as by Vel::tableHash, but in words of 8 bytes, the last one filled up with zeros. The hash state
// after each whole word is computed once for all prefixes.
class PathScan {
public:
    enum class Cuts : bool { no, yes };  // whether visitEnds will be called

    explicit PathScan(std::string_view path, Cuts cuts = Cuts::no) : length_(static_cast<U32>(path.size())) {
        if (path.empty() || path.size() > IndexedPath::maxLength) return;
        U64 state = start();
        U64 stars = 0;
        U32 i = 0;
        auto const take = [&](U64 word) {
            words_[i] = word;
            states_[i] = state;
            U64 const starred = word ^ eachByte * '*';
            stars |=
                (starred - eachByte) & ~starred;  // sets the high bit of the lowest star, and perhaps of bytes above it
            if (cuts == Cuts::no) return;
            U64 const found = zeroBytes((word | eachByte) ^ eachByte * '/') * 0x02040810204081ul >> 56;
            cuts_[i / 8] = (i % 8 ? cuts_[i / 8] : 0) | found << 8 * (i % 8);
        };
        for (; i < length_ / 8; ++i) {
            U64 const word = inOrder(Vel::wordAt<U64>(path.data() + 8 * i));
            take(word);
            state = next(state, word);
        }
        take(rest(path));
        cuts_[0] &= ~U64(1);  // a leading separator is no cut
        usable_ = (stars & eachByte * 0x80) == 0;
    }

    bool usable() const { return usable_; }  // it is neither empty nor too long, and has no star
    U32 length() const { return length_; }
    U64 hash(U32 end) const { return hash(states_[end / 8], tail(end), end); }  // of the prefix of `end` bytes
    // Calls f(end) for every prefix of whole components, the shortest first.
    template <class F> void visitEnds(F f) const {
        for (U32 i = 0; i <= length_ / 64; ++i)
            for (U64 left = cuts_[i]; left != 0; left &= left - 1) f(64 * i + static_cast<U32>(std::countr_zero(left)));
        f(length_);
    }

    // A path as words, the last one filled up with zeros, for use outside of a PathScan.
    static constexpr U32 wordsOf(U32 length) { return (length + 7) / 8; }
    static U64 hash(U64 const* words, U32 length) {
        U64 state = start();
        for (U32 i = 0; i < length / 8; ++i) state = next(state, words[i]);
        return hash(state, length % 8 ? words[length / 8] : 0, length);
    }
    void copyTo(U64* words) const { std::memcpy(words, words_, wordsOf(length_) * sizeof(U64)); }
    bool isSame(U64 const* words, U32 end) const {  // whether its first `end` bytes are in `words`
        U64 different = 0;
        for (U32 i = 0; i < end / 8; ++i) different |= words[i] ^ words_[i];
        return (different | (end % 8 ? words[end / 8] ^ tail(end) : 0)) == 0;
    }

private:
    static U64 start() { return Vel::ProcessSecret::value().words[0]; }
    static U64 next(U64 state, U64 word) {
        return Vel::foldedProduct(state ^ word, Vel::ProcessSecret::drawn().words[1]);
    }
    static U64 hash(U64 state, U64 tail, U32 end) {
        Vel::TableSecret const& secret = Vel::ProcessSecret::drawn();
        return Vel::foldedProduct(state ^ tail ^ secret.words[2], end ^ secret.words[3]);
    }
    static U64 rest(std::string_view path) {  // the bytes behind the whole words, filled up with zeros
        U64 word = 0;
        if (path.size() < 8)
            std::memcpy(&word, path.data(), path.size());
        else  // the bytes before them are shifted out
            return inOrder(Vel::wordAt<U64>(path.data() + path.size() - 8)) >> 1 >> (63 - 8 * (path.size() % 8));
        return inOrder(word);
    }
    U64 tail(U32 end) const { return words_[end / 8] & ((U64(1) << 8 * (end % 8)) - 1); }

    U32 length_;
    bool usable_ = false;
    U64 words_[IndexedPath::maxLength / 8 + 1];
    U64 states_[IndexedPath::maxLength / 8 + 1];
    U64 cuts_[IndexedPath::maxLength / 64 + 1];
};

// When tries make an index: by the number of questions, at each question, or never. Tests set this.
enum class IndexUse : U8 { itself, always, never };

// Paths, each with a node, which must exist as long as the path is here. Nothing throws.
//
// Invariants:
// 1. words_[0, used_) has records one after another: a word with the node's address and the path's length in bytes, and
//    then the path in words as in PathScan. In a removed record the address is 0; dead_ is the number of words of
//    removed records.
// 2. Each other record has a place in a bucket: a byte of its hash, which is not 0, and its offset in words_.
// 3. That is the bucket that the hash says, or a later one, if all buckets before that are marked as overflowed.
class VEL_API PathIndex {
public:
    static IndexUse use;

    PathIndex() noexcept = default;
    PathIndex(PathIndex const&) = delete;
    PathIndex& operator=(PathIndex const&) = delete;
    ~PathIndex();

    // Makes room for `paths` more paths, which have `words` words with their records. Returns false without memory for
    // that.
    bool reserve(U64 paths, U64 words) noexcept;
    // Adds a path. Returns false without memory. REQUIRES: the path is usable and not in the index.
    bool add(PathScan const& path, PrefixTrie& node) noexcept;
    void remove(PathScan const& path) noexcept;  // if it is there

    PrefixTrie* find(PathScan const& path) const noexcept {  // the node of the whole path, or null
        U32* const place = find(path, path.length(), path.hash(path.length()));
        return place ? nodeOf(words_[*place]) : nullptr;
    }
    // Returns the length of the longest prefix of the path that is in the index, 0 if none is. If `proper`, the prefix
    // must be shorter than the path.
    U32 longest(PathScan const& path, bool proper) const noexcept {
        U64 hashes[IndexedPath::maxLength];
        U32 ends[IndexedPath::maxLength];
        U32 count = 0;
        path.visitEnds([&](U32 end) {  // all buckets are fetched at the same time
            U64 const hash = path.hash(end);
            __builtin_prefetch(&buckets_[homeOf(hash)]);
            hashes[count] = hash;
            ends[count++] = end;
        });
        for (count -= proper ? 1 : 0; count > 0; --count)
            if (find(path, ends[count - 1], hashes[count - 1])) return ends[count - 1];
        return 0;
    }
    U64 size() const noexcept { return size_; }
    std::size_t memory() const noexcept { return bucketCount_ * sizeof(Bucket) + capacity_ * sizeof(U64); }  // bytes

    // These count whether the index is worth its upkeep. countChanges() returns false if it is not: if changes have
    // outnumbered questions by its size.
    void countStart() noexcept { credit_ = size_ + slack; }
    void countQuestion() noexcept { credit_ += credit_ < size_ + slack ? 1 : 0; }
    bool countChanges(U64 changes) noexcept {
        credit_ -= std::min(credit_, changes);
        return credit_ != 0 || use == IndexUse::always;
    }

private:
    static constexpr U64 addressBits = ~U64(0) >> 16;  // Linux gives no larger user-space address unless asked
    static constexpr U32 perBucket = 6;
    static constexpr U64 slack = 64;
    struct alignas(32) Bucket {
        U8 tags[perBucket];  // one for each place, 0 for none
        U8 unused;           // 0
        U8 overflowed;
        U32 places[perBucket];
    };

    static PrefixTrie* nodeOf(U64 word) { return reinterpret_cast<PrefixTrie*>(word & addressBits); }
    static U32 lengthOf(U64 word) { return static_cast<U32>(word >> 48); }
    static U32 sizeOf(U64 word) { return 1 + PathScan::wordsOf(lengthOf(word)); }
    static U8 tagOf(U64 hash) { return static_cast<U8>(hash) ? static_cast<U8>(hash) : U8(1); }
    U64 homeOf(U64 hash) const { return (hash >> 32) * bucketCount_ >> 32; }

    // The place of the path's first `end` bytes, or null.
    U32* find(PathScan const& path, U32 end, U64 hash) const noexcept {
        U64 b = homeOf(hash);
        for (U64 left = bucketCount_; left > 0; --left) {
            Bucket& bucket = buckets_[b];
            U64 const different =
                inOrder(Vel::wordAt<U64>(reinterpret_cast<char const*>(bucket.tags))) ^ eachByte * tagOf(hash);
            for (U64 m = zeroBytes(different) << 16 >> 16; m != 0; m &= m - 1) {
                U32& place = bucket.places[std::countr_zero(m) / 8];
                if (lengthOf(words_[place]) == end && path.isSame(&words_[place + 1], end)) return &place;
            }
            if (!bucket.overflowed) [[likely]]
                break;
            b = b + 1 == bucketCount_ ? 0 : b + 1;
        }
        return nullptr;
    }
    void put(U32 place, U64 hash) noexcept;

    Bucket* buckets_ = nullptr;
    U64* words_ = nullptr;
    U64 bucketCount_ = 0;
    U64 capacity_ = 0;  // words
    U64 used_ = 0;
    U64 dead_ = 0;
    U64 size_ = 0;
    U64 credit_ = slack;
};

}  // namespace Mox::Detail
