#include "Mox/IdSet.h"

#include "Vel/base/Assert.h"
#include "Vel/base/Exception.h"
#include "Vel/text/Scan.h"
#include "Vel/text/Strep.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

// The range list of an id set.
namespace Mox {

namespace {

constexpr char idSetSource[] = "/src/Mox/IdSet";
constexpr char parseFunction[] = "Mox::IdSet Mox::sequenceToValue(Vel::String::IteratorConst&, const "
                                 "Vel::String::IteratorConst&, const Mox::IdSet*)";

// The pieces between separators, as a line reader takes lines: no empty piece behind a separator at the end.
std::vector<std::string_view> pieces(std::string_view text, char separator) {
    std::vector<std::string_view> result;
    while (!text.empty()) {
        auto const at = text.find(separator);
        result.push_back(text.substr(0, at));
        text = at == std::string_view::npos ? std::string_view() : text.substr(at + 1);
    }
    return result;
}

unsigned long number(std::string_view text) { return std::stoul(std::string(text), nullptr, 10); }

[[noreturn]] VEL_COLD void failRange() {
    {
        Vel::SassertHelper helper("start < stop");
        helper.stream() << "Invalid range";
    }
    Vel::assertionFailed("\"start < stop\" == nullptr", idSetSource, 294, parseFunction);
}

}  // namespace

// --- text ---

namespace {

// Writes a range list, given its runs in ascending order. A run stays open until one comes that is not its
// continuation, so that runs may be given in parts.
class RangeListWriter {
public:
    // Enough for one word's 32 runs, the one that was open, and the parentheses.
    static constexpr std::size_t roomForWord = 34 * sizeof "12345-12346";

    explicit RangeListWriter(char* at) : at_(at) { *at_++ = '('; }

    void add(unsigned first, unsigned end) {  // [first, end)
        if (first != end_) {
            close();
            first_ = first;
        }
        end_ = end;
    }
    char* finish() {
        close();
        if (at_[-1] == ',') --at_;
        *at_++ = ')';
        return at_;
    }
    char* at() const { return at_; }
    void atIs(char* at) { at_ = at; }

private:
    void close() {
        if (end_ == none) return;
        writeId(first_);
        if (end_ - first_ > 1) {
            *at_++ = '-';
            writeId(end_ - 1);
        }
        *at_++ = ',';
    }
    // Ids ascend, so how many digits there are is foretold well.
    void writeId(unsigned id) {
        if (id < 10) {
            *at_++ = static_cast<char>('0' + id);
        } else if (id < 100) {
            writePair(id);
        } else if (id < 1000) {
            *at_++ = static_cast<char>('0' + id / 100);
            writePair(id % 100);
        } else {
            if (id >= 10000) *at_++ = static_cast<char>('0' + id / 10000);
            writePair(id / 100 % 100);
            writePair(id % 100);
        }
    }
    void writePair(unsigned pair) {
        std::memcpy(at_, Vel::Scan::digitPairs + pair * 2, 2);
        at_ += 2;
    }

    static constexpr unsigned none = ~0u;

    char* at_;
    unsigned first_ = 0;
    unsigned end_ = none;
};

}  // namespace

String IdSet::stringValue() const {
    Vel::StrepOut out;
    RangeListWriter writer(out.room(RangeListWriter::roomForWord));
    words_.forEach([&](unsigned bucket, U64 word) {
        out.endIs(writer.at());
        writer.atIs(out.room(RangeListWriter::roomForWord));
        word = belowSize(bucket, word);
        // A run is where the word is ones from one bit on. Adding its lowest bit carries through it, up to the end.
        for (unsigned const base = bucket * 64; word;) {
            unsigned const from = static_cast<unsigned>(std::countr_zero(word));
            U64 const above = word + (word & (~word + 1));
            unsigned const end = static_cast<unsigned>(std::countr_zero(above));  // 64 when nothing remains
            writer.add(base + from, base + end);
            word &= above;
        }
    });
    out.endIs(writer.finish());
    return out.str();
}

// Collects members by bucket, whatever their order, on top of those of another set.
class IdSet::Builder {
public:
    static bool isFor(IdSet const& set) {  // of a larger size, ids share bits
        return set.size_ <= 64 * Detail::WordMap::buckets;
    }
    explicit Builder(IdSet const& prototype)
        : size_(prototype.size_), stored_(prototype.words_.stored()), words_(Detail::takeBlock()) {
        prototype.words_.forEach([this](unsigned bucket, U64 word) { words_[bucket] = word; });
    }

    U16 size() const { return size_; }
    void addId(U16 id) {  // REQUIRES: as updateId
        if (id >= size_) [[unlikely]]
            failOn([=](IdSet& set) { set.updateId(Id(id), true); });
        addBits(id / 64u, U64(1) << (id % 64));
    }
    void addRange(U16 begin, U16 end) {  // [begin, end). REQUIRES: as idSetRange
        if (begin >= end || end > size_) [[unlikely]]
            failOn([=](IdSet& set) { set.idSetRange(Id(begin), Id(end)); });
        unsigned const first = begin / 64u;
        unsigned const last = (end - 1u) / 64;
        U64 const low = allOnes << (begin % 64);
        U64 const high = allOnes >> (63 - (end - 1u) % 64);
        if (first == last) return addBits(first, low & high);
        addBits(first, low);
        addBits(last, high);
        std::fill(words_.get() + first + 1, words_.get() + last, allOnes);
        for (unsigned b = first + 1; b < last; b = (b | 63) + 1) {  // a group's part of (first, last) at a time
            U64 const upTo = last > (b | 63) ? allOnes : ~(allOnes << (last % 64));
            stored_.bits[b / 64] |= upTo & allOnes << (b % 64);
        }
    }
    IdSet result() && {
        stored_.recount();
        return {size_, Detail::WordMap(std::move(words_), stored_, Detail::WordMap::Others::any)};
    }

private:
    static constexpr U64 allOnes = ~U64(0);

    // Lets a set's own operation say what is wrong, and abort.
    template <class F> VEL_COLD void failOn(F operation) const {
        IdSet set(size_);
        operation(set);
    }
    void addBits(unsigned bucket, U64 bits) {
        // What stands in a bucket that is not stored yet may be anything: it is masked out.
        U64& group = stored_.bits[bucket / 64];
        words_[bucket] = (words_[bucket] & (~(group >> (bucket % 64) & 1) + 1)) | bits;
        group |= U64(1) << (bucket % 64);
    }

    U16 size_;
    Detail::Presence stored_;
    Detail::Block words_;
};

namespace {

// The same for sets of any size, through their own operations.
class Adder {
public:
    explicit Adder(IdSet const& prototype) : set_(prototype) {}
    U16 size() const { return set_.size(); }
    void addId(U16 id) { set_.updateId(Id(id), true); }
    void addRange(U16 begin, U16 end) { set_.idSetRange(Id(begin), Id(end)); }
    IdSet result() && { return std::move(set_); }

private:
    IdSet set_;
};

// What a number of at most nine digits says; null when something else is there. There is a ")" behind the text.
char const* readDigits(char const* at, U32& number) {
    if (!Vel::Scan::isDigit(*at)) return nullptr;
    char const* const from = at;
    number = 0;
    for (; Vel::Scan::isDigit(*at); ++at) number = number * 10 + static_cast<U32>(*at - '0');
    return at - from <= 9 ? at : nullptr;
}

template <class Members> void addRange(Members& members, U32 start, U32 stop) {
    if (start >= stop) failRange();
    members.addRange(static_cast<U16>(start), static_cast<U16>(stop + 1));
}

// An item of whatever std::stoul takes: white space, signs, things behind the digits.
template <class Members> void addOddItem(Members& members, std::string_view item) {
    if (item.find('-') == std::string_view::npos) return members.addId(static_cast<U16>(number(item)));
    auto const range = pieces(item, '-');
    if (range.size() != 2) Vel::assertionFailed("range.size() == 2", idSetSource, 291, parseFunction);
    auto const start = static_cast<U32>(number(range[0]));
    addRange(members, start, static_cast<U32>(number(range[1])));
}

// Adds the items of [at, end). REQUIRES: *end is a ")".
template <class Members> void addItems(Members& members, char const* at, char const* end) {
    auto const ends = [](char c) { return c == ',' || c == ')'; };
    while (at != end) {
        U32 first = 0;
        U32 last = 0;
        char const* stop = readDigits(at, first);
        if (stop && ends(*stop)) {
            members.addId(static_cast<U16>(first));
        } else if (stop && *stop == '-' && (stop = readDigits(stop + 1, last)) != nullptr && ends(*stop)) {
            addRange(members, first, last);
        } else {
            stop = std::find(at, end, ',');
            addOddItem(members, {at, static_cast<std::size_t>(stop - at)});
        }
        at = stop + (stop != end);
    }
}

template <class Members> IdSet withItems(IdSet const& prototype, char const* at, char const* end) {
    Members members(prototype);
    addItems(members, at, end);
    return std::move(members).result();
}

}  // namespace

IdSet sequenceToValue(StrepIterator& p, StrepIterator const& end, IdSet const* prototype) {
    if (!prototype)
        throw Vel::ParseException("the text of a Mox::IdSet does not tell its size: give a set to add to", p.offset());
    std::string_view const text(p.charPtr(), static_cast<std::size_t>(end - p));
    auto const strepEnd = text.find(')');
    if (text.empty() || text[0] != '(' || strepEnd == std::string_view::npos)
        Vel::assertionFailed("*p == '(' && strepEnd != end", idSetSource, 279, parseFunction);
    p += static_cast<std::ptrdiff_t>(strepEnd + 1);
    auto const parse = IdSet::Builder::isFor(*prototype) ? withItems<IdSet::Builder> : withItems<Adder>;
    return parse(*prototype, text.data() + 1, text.data() + strepEnd);
}

IdSet IdSet::parse(StrepIterator& it, StrepIterator const& end, IdSet* prototype) {
    return sequenceToValue(it, end, static_cast<IdSet const*>(prototype));
}

namespace {

// Reads a range list from outside, step by step; the first thing amiss is kept with its place.
template <class Members> class RangeListReader {
public:
    explicit RangeListReader(std::string_view text) : text_(text) {}

    bool read(Members& members) {
        if (!take('(')) return fail("\"(\" expected");
        if (!take(')')) {
            do
                if (!readItem(members)) return false;
            while (take(','));
            if (!take(')')) return fail("\",\" or \")\" expected");
        }
        return at_ == text_.size() || fail("nothing may follow the \")\"");
    }
    Vel::CheckedError const& error() const { return error_; }

private:
    bool take(char c) {
        if (at_ == text_.size() || text_[at_] != c) return false;
        ++at_;
        return true;
    }
    bool readId(Members const& members, unsigned& id) {
        U16 value = 0;
        char const* const from = text_.data() + at_;
        char const* const end = text_.data() + text_.size();
        char const* const stop = Vel::Scan::readUnsigned(from, end, value);
        if (!stop) return fail("an id from 0 to 65534 expected");
        if (value >= members.size())
            return fail(Vel::format("id %u is not below the size %u", unsigned(value), unsigned(members.size())));
        at_ += static_cast<std::size_t>(stop - from);
        id = value;
        return true;
    }
    bool readItem(Members& members) {
        std::size_t const place = at_;
        unsigned first = 0;
        if (!readId(members, first)) return false;
        if (!take('-')) {
            members.addId(static_cast<U16>(first));
            return true;
        }
        unsigned last = 0;
        if (!readId(members, last)) return false;
        if (first >= last) {
            at_ = place;
            return fail("a range runs from a smaller id to a larger one");
        }
        members.addRange(static_cast<U16>(first), static_cast<U16>(last + 1));
        return true;
    }
    bool fail(String const& what) {
        error_ = {what + Vel::format(", at offset %zu", at_), at_};
        return false;
    }

    std::string_view text_;
    std::size_t at_ = 0;
    Vel::CheckedError error_;
};

}  // namespace

namespace {

template <class Members> Vel::Checked<IdSet> checkedList(U16 size, std::string_view rangeList) {
    Members members{IdSet(size)};
    RangeListReader<Members> reader(rangeList);
    if (!reader.read(members)) return reader.error();
    return std::move(members).result();
}

}  // namespace

Vel::Checked<IdSet> IdSet::checked(U16 size, std::string_view rangeList) {
    auto const read = Builder::isFor(IdSet(size)) ? checkedList<Builder> : checkedList<Adder>;
    return read(size, rangeList);
}

}  // namespace Mox
