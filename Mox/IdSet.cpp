#include "Mox/IdSet.h"

#include "Vel/Assert.h"
#include "Vel/Module.h"

#include <algorithm>

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

bool IdSet::updateId(Id i, bool value) & {
    check(i, "bool Mox::IdSet::updateId(Mox::Id, bool) &");
    BucketId const key(static_cast<U8>(bucketOf(i)));
    U64 const before = bucket(key);
    U64 const bit = U64(1) << (i.value() % 64);
    updateBucket(key, value ? before | bit : before & ~bit);
    return (before & bit) != 0;
}

U16 IdSet::ids() const {
    unsigned sum = 0;
    words_.forEach([&](unsigned, U64 word) { sum += static_cast<unsigned>(std::popcount(word)); });
    return static_cast<U16>(sum);
}

void IdSet::idSetAll() & {
    unsigned const full = loopBuckets();
    for (unsigned b = 0; b + 1 < full; ++b) words_.set(b, allOnes);
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
    for (unsigned b = firstBucket + 1; b < lastBucket; ++b) words_.set(b, allOnes);
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

void IdSet::BucketIterator::goTo(unsigned from) {
    unsigned const b = from < Detail::WordMap::buckets ? set_->words_.next(from) : Detail::WordMap::buckets;
    element_ = b < Detail::WordMap::buckets
                   ? Vel::Ptr<VelBucket>(new VelBucket(BucketId(static_cast<U8>(b)), set_->words_.get(b)))
                   : nullptr;
}

IdSet::BucketIterator IdSet::bucketIterator() const { return BucketIterator(*this); }
U64 IdSet::bucketDel(BucketIterator const& at) & { return bucketDel(at.key()); }

// --- algebra ---

template <class Op> void IdSet::combine(IdSet const& other, Op op) {
    unsigned const limit = loopBuckets();
    if (limit == 0) return;
    U64 mine[Detail::WordMap::buckets];
    U64 theirs[Detail::WordMap::buckets];
    words_.copyTo(mine);
    other.words_.copyTo(theirs);
    for (unsigned b = 0; b < limit; ++b) mine[b] = op(mine[b], theirs[b]);
    words_.assign(mine, limit);
}

IdSet& IdSet::operator|=(IdSet const& other) & {
    checkSameSize(other, "Mox::IdSet& Mox::IdSet::operator|=(const Mox::IdSet&) &");
    combine(other, [](U64 a, U64 b) { return a | b; });
    return *this;
}
IdSet& IdSet::operator&=(IdSet const& other) & {
    checkSameSize(other, "Mox::IdSet& Mox::IdSet::operator&=(const Mox::IdSet&) &");
    combine(other, [](U64 a, U64 b) { return a & b; });
    return *this;
}
IdSet& IdSet::operator-=(IdSet const& other) & {
    checkSameSize(other, "Mox::IdSet& Mox::IdSet::operator-=(const Mox::IdSet&) &");
    combine(other, [](U64 a, U64 b) { return a & ~b; });
    return *this;
}
IdSet& IdSet::operator^=(IdSet const& other) & {
    checkSameSize(other, "Mox::IdSet& Mox::IdSet::operator^=(const Mox::IdSet&) &");
    combine(other, [](U64 a, U64 b) { return a ^ b; });
    return *this;
}

namespace {

template <class Compound> IdSet combined(IdSet const& a, IdSet const& b, Compound compound) {
    IdSet result = a;
    compound(result, b);
    return result;
}

}  // namespace

IdSet operator|(IdSet const& a, IdSet const& b) {
    return combined(a, b, [](IdSet& r, IdSet const& o) { r |= o; });
}
IdSet operator&(IdSet const& a, IdSet const& b) {
    return combined(a, b, [](IdSet& r, IdSet const& o) { r &= o; });
}
IdSet operator-(IdSet const& a, IdSet const& b) {
    return combined(a, b, [](IdSet& r, IdSet const& o) { r -= o; });
}
IdSet operator^(IdSet const& a, IdSet const& b) {
    return combined(a, b, [](IdSet& r, IdSet const& o) { r ^= o; });
}

IdSet IdSet::operator~() const {
    IdSet result = *this;
    result.combine(*this, [](U64 a, U64) { return ~a; });
    return result;
}

bool IdSet::isSubsetOf(IdSet const& other) const {
    checkSameSize(other, "bool Mox::IdSet::isSubsetOf(const Mox::IdSet&) const");
    bool subset = true;
    words_.forEach([&](unsigned b, U64 word) { subset = subset && (word & ~other.words_.get(b)) == 0; });
    return subset;
}

bool IdSet::isDisjointFrom(IdSet const& other) const {
    checkSameSize(other, "bool Mox::IdSet::isDisjointFrom(const Mox::IdSet&) const");
    bool disjoint = true;
    words_.forEach([&](unsigned b, U64 word) { disjoint = disjoint && (word & other.words_.get(b)) == 0; });
    return disjoint;
}

U32 IdSet::idsInCommon(IdSet const& other) const {
    checkSameSize(other, "U32 Mox::IdSet::idsInCommon(const Mox::IdSet&) const");
    U32 sum = 0;
    words_.forEach([&](unsigned b, U64 word) { sum += static_cast<U32>(std::popcount(word & other.words_.get(b))); });
    return sum;
}

// --- comparison and hash ---

bool operator==(IdSet const& a, IdSet const& b) { return a.size_ == b.size_ && a.words_ == b.words_; }

std::strong_ordering operator<=>(IdSet const& a, IdSet const& b) {
    if (a.size_ != b.size_) return a.size_ <=> b.size_;
    if (a.words_.size() != b.words_.size()) return a.words_.size() <=> b.words_.size();
    unsigned x = a.words_.next(0);
    unsigned y = b.words_.next(0);
    while (x < Detail::WordMap::buckets) {  // as many on either side
        if (x != y) return x <=> y;
        U64 const mine = a.words_.get(x);
        U64 const theirs = b.words_.get(y);
        if (mine != theirs) return mine <=> theirs;
        x = a.words_.next(x + 1);
        y = b.words_.next(y + 1);
    }
    return std::strong_ordering::equal;
}

U32 IdSet::hash(unsigned seed) const {
    Vel::Hash hash(seed);
    hash.hashMix<2>(size_);
    words_.forEach([&](unsigned b, U64 word) {
        hash.hashMix<4>(Vel::hashSingleAttr(0, static_cast<U8>(b)));
        hash.hashMix<8>(word);
    });
    return hash.result();
}

}  // namespace Mox

VEL_MODULE(IdSet, ddd303b31205ed2b, Mox::Id, Mox::BucketId, Mox::IdSet);
