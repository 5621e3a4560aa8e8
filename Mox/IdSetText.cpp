#include "Mox/IdSet.h"

#include "Vel/Assert.h"
#include "Vel/Exception.h"
#include "Vel/Strep.h"
#include "Vel/internal/Scan.h"

#include <algorithm>
#include <string>
#include <vector>

// The range list and the stream form of an id set.
namespace Mox {

namespace {

constexpr char source[] = "/src/Mox/IdSet";
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

void addRange(IdSet& set, std::string_view item) {
    auto const range = pieces(item, '-');
    if (range.size() != 2) Vel::assertionFailed("range.size() == 2", source, 291, parseFunction);
    auto const start = static_cast<U32>(number(range[0]));
    auto const stop = static_cast<U32>(number(range[1]));
    if (start >= stop) {
        {
            Vel::SassertHelper helper("start < stop");
            helper.stream() << "Invalid range";
        }
        Vel::assertionFailed("\"start < stop\" == nullptr", source, 294, parseFunction);
    }
    set.idSetRange(Id(static_cast<U16>(start)), Id(static_cast<U16>(stop + 1)));
}

}  // namespace

// --- text ---

String IdSet::stringValue() const {
    Vel::StrepOut out;
    out << "(";
    unsigned first = 0;
    unsigned last = 0;
    bool open = false;
    bool any = false;
    auto const close = [&] {
        char* to = out.room(2 * Vel::Scan::maxUnsigned);
        if (any) *to++ = ',';
        to = Vel::Scan::writeUnsigned(to, first);
        if (last != first) {
            *to++ = '-';
            to = Vel::Scan::writeUnsigned(to, last);
        }
        out.endIs(to);
        any = true;
    };
    words_.forEach([&](unsigned bucket, U64 word) {
        unsigned const base = bucket * 64;
        // A run is where the word is ones from one bit on: cut it out, go on with what is above.
        while (word) {
            unsigned const from = static_cast<unsigned>(std::countr_zero(word));
            unsigned const length = static_cast<unsigned>(std::countr_one(word >> from));
            if (base + from >= size_) return;
            unsigned const end = std::min<unsigned>(base + from + length, size_);  // behind the run's last id
            if (!(open && base + from == last + 1)) {
                if (open) close();
                first = base + from;
                open = true;
            }
            last = end - 1;
            word = from + length < 64 ? word >> (from + length) << (from + length) : 0;
        }
    });
    if (open) close();
    out << ")";
    return out.str();
}

IdSet sequenceToValue(StrepIterator& p, StrepIterator const& end, IdSet const* prototype) {
    if (!prototype)
        throw Vel::ParseException("the text of a Mox::IdSet does not tell its size: give a set to add to", p.offset());
    std::string_view const text(p.charPtr(), static_cast<std::size_t>(end - p));
    auto const strepEnd = text.find(')');
    if (text.empty() || text[0] != '(' || strepEnd == std::string_view::npos)
        Vel::assertionFailed("*p == '(' && strepEnd != end", source, 279, parseFunction);
    p += static_cast<std::ptrdiff_t>(strepEnd + 1);
    IdSet result = *prototype;
    for (std::string_view const item : pieces(text.substr(1, strepEnd - 1), ',')) {
        if (item.find('-') != std::string_view::npos)
            addRange(result, item);
        else
            result.updateId(Id(static_cast<U16>(number(item))), true);
    }
    return result;
}

IdSet IdSet::parse(StrepIterator& it, StrepIterator const& end, IdSet* prototype) {
    return sequenceToValue(it, end, static_cast<IdSet const*>(prototype));
}

namespace {

// Reads a range list from outside, step by step; the first thing amiss is kept with its place.
class RangeListReader {
public:
    explicit RangeListReader(std::string_view text) : text_(text) {}

    bool read(IdSet& set) {
        if (!take('(')) return fail("\"(\" expected");
        if (!take(')')) {
            do
                if (!readItem(set)) return false;
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
    bool readId(IdSet const& set, unsigned& id) {
        U16 value = 0;
        char const* const from = text_.data() + at_;
        char const* const end = text_.data() + text_.size();
        char const* const stop = Vel::Scan::readUnsigned(from, end, value);
        if (!stop) return fail("an id from 0 to 65534 expected");
        if (value >= set.size())
            return fail(Vel::format("id %u is not below the size %u", unsigned(value), unsigned(set.size())));
        at_ += static_cast<std::size_t>(stop - from);
        id = value;
        return true;
    }
    bool readItem(IdSet& set) {
        std::size_t const place = at_;
        unsigned first = 0;
        if (!readId(set, first)) return false;
        if (!take('-')) {
            set.updateId(Id(static_cast<U16>(first)), true);
            return true;
        }
        unsigned last = 0;
        if (!readId(set, last)) return false;
        if (first >= last) {
            at_ = place;
            return fail("a range runs from a smaller id to a larger one");
        }
        set.idSetRange(Id(static_cast<U16>(first)), Id(static_cast<U16>(last + 1)));
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

Vel::Checked<IdSet> IdSet::checked(U16 size, std::string_view rangeList) {
    IdSet set(size);
    RangeListReader reader(rangeList);
    if (!reader.read(set)) return reader.error();
    return set;
}

// --- stream ---

namespace {

constexpr U8 endOfBuckets = 255;

}

void IdSet::write(Vel::NboAttrLog::Out& out, IdSet const& set) {
    if (set.words_.contains(endOfBuckets)) Vel::NboAttrLog::failWithAttrLogValueCollectionDefaultKey();
    U8* to = out.append(set.attrLogSize());
    Vel::NboAttrLog::store(to, set.size_);
    to += 2;
    set.words_.forEach([&](unsigned bucket, U64 word) {
        *to = static_cast<U8>(bucket);
        Vel::NboAttrLog::store(to + 1, word);
        to += 9;
    });
    *to = endOfBuckets;
}

void IdSet::readInto(IdSet& set, LogIn& in) {
    IdSet result(in.nextU16());
    for (U8 bucket = in.nextU8(); bucket != endOfBuckets; bucket = in.nextU8()) {
        if (result.words_.contains(bucket)) Vel::NboAttrLog::failWithAttrLogValueCollectionDuplicateKey();
        result.words_.set(bucket, in.nextU64());
    }
    set = std::move(result);
}

}  // namespace Mox
