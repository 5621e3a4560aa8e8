#include "Mox/IdSet.h"

#include "Vel/base/Assert.h"
#include "Vel/describe/Module.h"

#include <array>

namespace Mox {

namespace {

constexpr char source[] = "/src/Mox/IdSet";
constexpr U64 allOnes = ~U64(0);
constexpr char nextIdFunction[] = "Mox::Id Mox::IdSet::nextId(Mox::Id) const";
constexpr char idSetRangeFunction[] = "void Mox::IdSet::idSetRange(Mox::Id, Mox::Id) &";

// A failed precondition with an explanation.
template <class... Message>
[[noreturn]] VEL_COLD void fail(
    std::string const& condition, unsigned line, char const* function, Message const&... message) {
    {
        Vel::SassertHelper helper(condition.c_str());
        (helper.stream() << ... << message);
    }
    Vel::assertionFailed(("\"" + condition + "\" == nullptr").c_str(), source, line, function);
}

}  // namespace

// --- failures ---

void IdSet::failLimit(Id i, char const* function) const {
    fail("bitPos.value() < size()", 31, function, "id ", i.value(), " exceeds limit of ", size_);
}

void IdSet::checkSameSize(IdSet const& other, char const* function) const {
    if (size_ != other.size_) [[unlikely]]
        Vel::assertionFailed("size() == other.size()", source, 138, function);
}

void IdSet::failIterator(bool isConst, bool inKey) {
    char const* const function = isConst ? inKey ? "Mox::Id Mox::IdSet::IdIteratorConst::key() const"
                                                 : "Mox::Id Mox::IdSet::IdIteratorConst::next()"
                                 : inKey ? "Mox::Id Mox::IdSet::IdIterator::key() const"
                                         : "Mox::Id Mox::IdSet::IdIterator::next()";
    Vel::assertionFailed("curId_ != Id::null()", source, inKey ? 212 : 219, function);
}

// --- construction ---

IdSet::IdSet(U16 size, Id initialId) : size_(size) { handleInitialized(initialId); }
IdSet::IdSet(LogIn* in, StreamBogon) { Vel::read(*this, *in); }

// --- members ---

U64 IdSet::removeBit(unsigned bucket, U64 bit) {
    U64 const before = words_.get(bucket);
    U64 const rest = before & ~bit;
    if (rest == 0)
        words_.erase(bucket);  // also a word that was stored as 0
    else if (rest != before)
        words_.set(bucket, rest);
    return before;
}

U16 IdSet::ids() const { return static_cast<U16>(words_.bitsSet()); }

void IdSet::idSetAll() & {
    unsigned const full = loopBuckets();
    if (full > 1) words_.fill(0, full - 1);
    // Of size 0, the last bucket is number 255, and the shift is by 64 modulo 64: that word becomes all ones.
    int const lastBit = (size_ - 1) % 64;
    words_.set((maxBuckets() - 1) & 255u, allOnes >> ((63 - lastBit) & 63));
}

void IdSet::idSetRange(Id begin, Id end) & {
    if (begin.value() >= end.value())
        fail("begin.value() < end.value()", 84, idSetRangeFunction, "range should be of at least length 1");
    if (end.value() > size_)
        fail("end.value() <= size()", 85, idSetRangeFunction, "end can't be greater than bitmap limit");
    Id const last(static_cast<U16>(end.value() - 1));
    unsigned const firstBucket = bucketOf(begin);
    unsigned const lastBucket = bucketOf(last);
    U64 const low = allOnes << (begin.value() % 64);
    U64 const high = allOnes >> (63 - last.value() % 64);
    if (firstBucket == lastBucket) {
        // Of a range once around all buckets, the masks need not meet: an empty word is not kept then.
        updateBucket(static_cast<U8>(firstBucket), words_.get(firstBucket) | (low & high));
        return;
    }
    words_.set(firstBucket, words_.get(firstBucket) | low);
    words_.set(lastBucket, words_.get(lastBucket) | high);
    // Bucket numbers have 8 bits here as well: behind bucket 255 comes bucket 0.
    unsigned const second = (firstBucket + 1) & 255u;
    if (second < lastBucket) words_.fill(second, lastBucket);
}

Id IdSet::nextId(Id bitPos) const {
    if (bitPos.value() >= size_ && bitPos != Id())
        fail("bitPos.value() < size() || bitPos.value() == Id::null()", 108, nextIdFunction,
            "current bit can't be greater than bitmap limit");
    auto const belowSize = [this](unsigned id) { return id < size_ ? Id(static_cast<U16>(id)) : Id(); };
    unsigned from = 0;
    if (bitPos != Id()) {
        unsigned const bit = bitPos.value() % 64;
        U64 const rest = bit < 63 ? words_.get(bucketOf(bitPos)) >> (bit + 1) : 0;
        if (rest) return belowSize(bitPos.value() + 1u + static_cast<unsigned>(std::countr_zero(rest)));
        from = (bucketOf(bitPos) + 1) & 255u;  // behind the last bucket the search begins anew
    }
    for (unsigned b = words_.next(from); b < Detail::WordMap::buckets; b = words_.next(b + 1))
        if (U64 const word = words_.get(b)) return belowSize(b * 64 + static_cast<unsigned>(std::countr_zero(word)));
    return Id();
}

bool IdSet::idExists(Id i) const { return i != Id() && id(i); }

IdSet::IdIterator IdSet::idIterator() { return IdIterator(*this); }
IdSet::IdIterator IdSet::idIterator(Id start) { return IdIterator(*this, start); }
IdSet::IdIteratorConst IdSet::idIteratorConst() const { return IdIteratorConst(*this); }
IdSet::IdIteratorConst IdSet::idIteratorConst(Id start) const { return IdIteratorConst(*this, start); }

// --- buckets as a collection ---

IdSet::VelBucket::~VelBucket() = default;
Vel::VelType IdSet::VelBucket::fwkType() const { return {}; }

Vel::AllocTrackTypeInfo& IdSet::VelBucket::velAllocTrack() {
    static constinit Vel::AllocTrackTypeInfo info("Mox::IdSet::VelBucket");
    return info;
}

void IdSet::BucketIterator::goTo(unsigned from) {
    unsigned const b = from < Detail::WordMap::buckets ? set_->words_.next(from) : Detail::WordMap::buckets;
    if (b == Detail::WordMap::buckets) {
        element_ = nullptr;
        return;
    }
    BucketId const key(static_cast<U8>(b));
    U64 const word = set_->words_.get(b);
    if (element_ && element_->references() == 1)  // nobody else holds it
        *element_ = VelBucket(key, word);
    else
        element_ = new VelBucket(key, word);
}

IdSet::BucketIterator IdSet::bucketIterator() const { return BucketIterator(*this); }
U64 IdSet::bucketDel(BucketIterator const& at) & { return bucketDel(at.key()); }

// --- algebra ---

IdSet IdSet::combined(IdSet const& a, IdSet const& b, Detail::SetOp op, char const* function) {
    a.checkSameSize(b, function);
    return {a.size_, Detail::WordMap::combined(a.words_, b.words_, op, a.loopBuckets())};
}

void IdSet::combine(IdSet const& other, Detail::SetOp op, char const* function) {
    checkSameSize(other, function);
    words_ = Detail::WordMap::combined(words_, other.words_, op, loopBuckets());
}

namespace {

// The operators of two operands are the compound ones on a copy, and their failures say so.
constexpr char unite[] = "Mox::IdSet& Mox::IdSet::operator|=(const Mox::IdSet&) &";
constexpr char intersect[] = "Mox::IdSet& Mox::IdSet::operator&=(const Mox::IdSet&) &";
constexpr char subtract[] = "Mox::IdSet& Mox::IdSet::operator-=(const Mox::IdSet&) &";
constexpr char exclude[] = "Mox::IdSet& Mox::IdSet::operator^=(const Mox::IdSet&) &";

}  // namespace

IdSet operator|(IdSet const& a, IdSet const& b) { return IdSet::combined(a, b, Detail::SetOp::unite, unite); }
IdSet operator&(IdSet const& a, IdSet const& b) { return IdSet::combined(a, b, Detail::SetOp::intersect, intersect); }
IdSet operator-(IdSet const& a, IdSet const& b) { return IdSet::combined(a, b, Detail::SetOp::subtract, subtract); }
IdSet operator^(IdSet const& a, IdSet const& b) { return IdSet::combined(a, b, Detail::SetOp::exclude, exclude); }

IdSet& IdSet::operator|=(IdSet const& other) & {
    combine(other, Detail::SetOp::unite, unite);
    return *this;
}
IdSet& IdSet::operator&=(IdSet const& other) & {
    combine(other, Detail::SetOp::intersect, intersect);
    return *this;
}
IdSet& IdSet::operator-=(IdSet const& other) & {
    combine(other, Detail::SetOp::subtract, subtract);
    return *this;
}
IdSet& IdSet::operator^=(IdSet const& other) & {
    combine(other, Detail::SetOp::exclude, exclude);
    return *this;
}

IdSet IdSet::operator~() const { return {size_, words_.complemented(loopBuckets())}; }

bool IdSet::isSubsetOf(IdSet const& other) const {
    checkSameSize(other, "bool Mox::IdSet::isSubsetOf(const Mox::IdSet&) const");
    return words_.allOf([&](unsigned b, U64 word) { return (word & ~other.words_.get(b)) == 0; });
}

bool IdSet::isDisjointFrom(IdSet const& other) const {
    checkSameSize(other, "bool Mox::IdSet::isDisjointFrom(const Mox::IdSet&) const");
    if (words_.size() > other.words_.size()) return other.isDisjointFrom(*this);  // walk the fewer words
    return words_.allOf([&](unsigned b, U64 word) { return (word & other.words_.get(b)) == 0; });
}

U32 IdSet::idsInCommon(IdSet const& other) const {
    checkSameSize(other, "U32 Mox::IdSet::idsInCommon(const Mox::IdSet&) const");
    if (words_.size() > other.words_.size()) return other.idsInCommon(*this);
    U32 sum = 0;
    words_.forEach([&](unsigned b, U64 word) { sum += Detail::bitCount(word & other.words_.get(b)); });
    return sum;
}

// --- comparison and hash ---

bool operator==(IdSet const& a, IdSet const& b) { return a.size_ == b.size_ && a.words_ == b.words_; }

std::strong_ordering operator<=>(IdSet const& a, IdSet const& b) {
    if (a.size_ != b.size_) return a.size_ <=> b.size_;
    if (a.words_.size() != b.words_.size()) return a.words_.size() <=> b.words_.size();
    Detail::WordMap::Cursor x(a.words_);
    Detail::WordMap::Cursor y(b.words_);
    unsigned xBucket = 0;
    unsigned yBucket = 0;
    U64 xWord = 0;
    U64 yWord = 0;
    while (x.next(xBucket, xWord) && y.next(yBucket, yWord)) {  // as many on either side
        if (xBucket != yBucket) return xBucket <=> yBucket;
        if (xWord != yWord) return xWord <=> yWord;
    }
    return std::strong_ordering::equal;
}

namespace {

// The pieces that the buckets' own hashes are mixed in as.
constexpr auto bucketPieces = [] {
    std::array<U64, Detail::WordMap::buckets> pieces = {};
    for (unsigned b = 0; b < pieces.size(); ++b)
        pieces[b] = Vel::Hash::piece<4>(Vel::hashSingleAttr(0, static_cast<U8>(b)));
    return pieces;
}();

constexpr U64 m2 = Vel::Hash::multiplier * Vel::Hash::multiplier;

// Goes on with the hash state h over `count` buckets. Mixing in a bucket's hash and then its word comes to
// h = (h + u) * m2, where u is the sum of the first's piece and the second's unscaled one and m2 is the multiplier
// squared: a polynomial in m2, which four independent lanes evaluate faster than one, each of whose steps waits for
// the multiplication before. next() yields u.
template <class Next> U64 hashedLanes(U64 h, unsigned count, Next next) {
    constexpr U64 m4 = m2 * m2;
    constexpr U64 m8 = m4 * m4;
    for (unsigned i = 0; i < count % 4; ++i) h = (h + next()) * m2;
    if (count < 4) return h;
    U64 lane0 = h + next();
    U64 lane1 = next();
    U64 lane2 = next();
    U64 lane3 = next();
    for (unsigned i = 1; i < count / 4; ++i) {
        lane0 = lane0 * m8 + next();
        lane1 = lane1 * m8 + next();
        lane2 = lane2 * m8 + next();
        lane3 = lane3 * m8 + next();
    }
    return lane0 * m8 + lane1 * (m4 * m2) + lane2 * m4 + lane3 * m2;
}

template <class Word> U64 hashedGroup(U64 h, unsigned base, U64 bits, Word word) {
    unsigned const count = Detail::bitCount(bits);
    if ((bits & (bits + 1)) == 0)  // without gaps: no search for them
        return hashedLanes(h, count, [&, bucket = base]() mutable {
            U64 const u = bucketPieces[bucket] + Vel::Hash::unscaledPiece(word(bucket));
            ++bucket;
            return u;
        });
    return hashedLanes(h, count, [&] {
        unsigned const bucket = base + static_cast<unsigned>(std::countr_zero(bits));
        bits &= bits - 1;
        return bucketPieces[bucket] + Vel::Hash::unscaledPiece(word(bucket));
    });
}

}  // namespace

U32 IdSet::hash(unsigned seed) const {
    Vel::Hash hash(seed);
    hash.hashMix<2>(size_);
    U64 h = hash.state();
    U64 const* at = words_.words();
    for (unsigned group = 0; group < Detail::Presence::groups; ++group) {
        U64 const bits = words_.stored().bits[group];
        if (words_.isDirect())
            h = hashedGroup(h, group * 64, bits, [at](unsigned bucket) { return at[bucket]; });
        else
            h = hashedGroup(h, group * 64, bits, [&at](unsigned) { return *at++; });
    }
    hash.stateIs(h);
    return hash.result();
}

}  // namespace Mox

VEL_MODULE(IdSet, ddd303b31205ed2b, Mox::Id, Mox::BucketId, Mox::IdSet);
