#include "Mox/IdSet.h"

#include <algorithm>

// An id set in the attribute log: its size, nine bytes for each bucket, the end mark.
namespace Mox {

namespace {

constexpr U8 endOfBuckets = 255;
constexpr std::size_t bucketBytes = 9;  // its number, its word

void writeBucket(U8* to, unsigned bucket, U64 word) {
    *to = static_cast<U8>(bucket);
    Vel::NboAttrLog::store(to + 1, word);
}

// Whether buckets first to last, and no others, stand in [at, end).
bool areAll(U8 const* at, U8 const* end, unsigned first, unsigned last) {
    std::size_t const more = (last - first) * bucketBytes;
    if (static_cast<std::size_t>(end - at) <= more || at[0] != first || at[more] != last) return false;
    unsigned difference = 0;
    auto const compare = [&](unsigned i) { difference |= at[i * bucketBytes] ^ (first + i); };
    unsigned i = 0;
    for (; i + 4 <= last - first; i += 4) {
        compare(i);
        compare(i + 1);
        compare(i + 2);
        compare(i + 3);
    }
    for (; i < last - first; ++i) compare(i);
    return difference == 0;
}

// Notes the buckets of [from, end) as long as they ascend; returns where something else stands. REQUIRES: from `from`
// to `end`, buckets are whole.
U8 const* noteAscending(U8 const* from, U8 const* end, Detail::Presence& stored) {
    U8 const* at = from;
    for (unsigned group = 0; group < Detail::Presence::groups; ++group) {
        unsigned const first = group * 64;
        unsigned const last = std::min(first + 63, endOfBuckets - 1u);
        U64 bits = 0;
        if (areAll(at, end, first, last)) {
            bits = ~U64(0) >> (63 - (last - first));
            at += (last - first + 1) * bucketBytes;
        } else {
            for (unsigned next = first; at != end && *at >= next && *at <= last; at += bucketBytes) {
                bits |= U64(1) << (*at - first);
                next = *at + 1u;
            }
        }
        stored.append(group, bits, static_cast<unsigned>(at - from) / unsigned(bucketBytes));
    }
    return at;
}

// Buckets in the order that every writer leaves them in; null, with nothing consumed, when they are not. Nothing is
// allocated before they have been seen to be whole.
bool readAscending(LogIn& in, Detail::WordMap& words) {
    U8 const* const from = in.take(0);
    Detail::Presence stored;
    U8 const* const end = noteAscending(from, from + in.left() / bucketBytes * bucketBytes, stored);
    auto const length = static_cast<std::size_t>(end - from);
    if (length == in.left() || *end != endOfBuckets) return false;
    in.take(length + 1);
    words = Detail::WordMap(stored, [at = from - bucketBytes]() mutable {
        at += bucketBytes;
        return Vel::NboAttrLog::load<U64>(at + 1);
    });
    return true;
}

// Buckets in any order, or what is wrong with them.
Detail::WordMap readInAnyOrder(LogIn& in) {
    Detail::WordMap words;
    for (U8 bucket = in.nextU8(); bucket != endOfBuckets; bucket = in.nextU8()) {
        if (words.contains(bucket)) Vel::NboAttrLog::failWithAttrLogValueCollectionDuplicateKey();
        words.set(bucket, in.nextU64());
    }
    return words;
}

}  // namespace

void IdSet::write(Vel::NboAttrLog::Out& out, IdSet const& set) {
    if (set.words_.contains(endOfBuckets)) Vel::NboAttrLog::failWithAttrLogValueCollectionDefaultKey();
    U8* to = out.append(set.attrLogSize());
    Vel::NboAttrLog::store(to, set.size_);
    to += 2;
    auto const writeOne = [&](unsigned bucket, U64 word) {
        writeBucket(to, bucket, word);
        to += bucketBytes;
    };
    U64 const* const words = set.words_.words();
    if (set.words_.size() == endOfBuckets)  // all that there may be: no search for them
        for (unsigned b = 0; b < endOfBuckets; b += 3) {
            writeOne(b, words[b]);
            writeOne(b + 1, words[b + 1]);
            writeOne(b + 2, words[b + 2]);
        }
    else
        set.words_.forEach(writeOne);
    *to = endOfBuckets;
}

void IdSet::readInto(IdSet& set, LogIn& in) {
    U16 const size = in.nextU16();
    if (!readAscending(in, set.words_)) set.words_ = readInAnyOrder(in);
    set.size_ = size;
}

}  // namespace Mox
