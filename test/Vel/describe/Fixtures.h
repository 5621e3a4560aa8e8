#pragma once

#include "Vel/describe/Value.h"
#include "Vel/entity/Entity.h"

#include <map>

// Described types that, between them, use everything that a description can say. Their tables stand word for word in
// DescribeTest.cpp.
namespace Fixture {

using Vel::AttributeOp;
using Vel::F64;
using Vel::Ptr;
using Vel::Seconds;
using Vel::StrepOut;
using Vel::String;
using Vel::U1;
using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;
using Vel::operator<<;
using Vel::sequenceToValue;
using Vel::valueToStrep;

// A bare number whose setter stores first and checks then; named constants; a second way to read and write it.
class Chip {
public:
    constexpr Chip() = default;
    Chip(U8 value) : value_(value) { check(); }
    Chip(String::IteratorConst& it, String::IteratorConst const& end) {
        Vel::parse(*this, it, end);
        check();
    }
    Chip(Vel::NboAttrLog::In* in, Vel::StreamBogon) { Vel::read(*this, *in); }

    constexpr U8 value() const { return value_; }
    void valueIs(U8 value) & {
        if (value == value_) return;
        value_ = value;
        check();
    }
    static constexpr U8 min() { return 0; }
    static constexpr U8 max() { return 126; }
    static constexpr U8 allChips() { return 127; }
    static constexpr U8 null() { return 128; }
    constexpr U32 hash(U32) const { return value_; }
    friend bool operator==(Chip, Chip) = default;
    friend auto operator<=>(Chip, Chip) = default;
    static bool isTrue(Chip const& chip) { return chip.value_ != null(); }

    static constexpr auto description() {
        return Vel::number("Fixture::Chip", Vel::checkedField<&Chip::value_, &Chip::valueIs>("value"),
            Vel::constant<&Chip::min>("min"), Vel::constant<&Chip::max>("max"),
            Vel::constant<&Chip::allChips>("allChips"), Vel::constant<&Chip::null>("null"),
            Vel::derived<&Chip::value, &Chip::valueIs>("hash"))
            .with(Vel::ordered, Vel::hashBy<&Chip::hash>, Vel::truth<&Chip::isTrue>);
    }

private:
    void check() const {
        if (value_ > null()) Vel::throwRangeException("a chip above 128");
    }
    U8 value_ = 0;
};

// Functions before the fields, a keyed collection of bool, an order that is not that of the fields.
class ChipBits {
public:
    constexpr ChipBits() = default;
    constexpr ChipBits(U64 low, U64 high) : low_(low), high_(high) {}
    ChipBits(String::IteratorConst& it, String::IteratorConst const& end) { Vel::parse(*this, it, end); }
    ChipBits(Vel::NboAttrLog::In* in, Vel::StreamBogon) { Vel::read(*this, *in); }

    static ChipBits oneChip(Chip chip) {
        ChipBits bits;
        bits.chipIs(chip, true);
        return bits;
    }
    static ChipBits noChips() { return {}; }
    U32 chips() const { return static_cast<U32>(__builtin_popcountl(low_) + __builtin_popcountl(high_)); }
    bool chip(Chip chip) const { return (chip.value() < 64 ? low_ : high_) >> chip.value() % 64 & 1; }
    void chipIs(Chip chip, bool on) & {
        U64& word = chip.value() < 64 ? low_ : high_;
        U64 const bit = U64(1) << chip.value() % 64;
        word = on ? word | bit : word & ~bit;
    }
    bool chipDel(Chip chip) & {
        bool const was = this->chip(chip);
        chipIs(chip, false);
        return was;
    }
    ChipBits concat(ChipBits const& other) const { return {low_ | other.low_, high_ | other.high_}; }
    U32 hash(U32 seed) const;
    friend bool operator==(ChipBits const&, ChipBits const&) = default;
    friend bool operator<(ChipBits const& a, ChipBits const& b) {
        return a.high_ != b.high_ ? a.high_ < b.high_ : a.low_ < b.low_;
    }

    static constexpr auto description() {
        return Vel::record("Fixture::ChipBits", Vel::method<&ChipBits::oneChip>("oneChip", "chip"),
            Vel::method<&ChipBits::noChips>("noChips"), Vel::method<&ChipBits::chips>("chips"),
            Vel::collection<Chip, bool, &ChipBits::chip, &ChipBits::chipIs, &ChipBits::chipDel>("chip"),
            Vel::method<&ChipBits::concat>("concat", "other"), Vel::field<&ChipBits::low_>("low"),
            Vel::field<&ChipBits::high_>("high"))
            .with(Vel::ordered, Vel::hashBy<&ChipBits::hash>);
    }

private:
    U64 low_ = 0;
    U64 high_ = 0;
};

inline U32 ChipBits::hash(U32 seed) const { return Vel::hashFields(*this, seed); }

// Text and stream forms of its own, constructor arguments, set arithmetic, attributes that answer nothing.
class Words {
public:
    Words() = default;
    Words(U16 size, U16 initialId) : size_(size) {
        if (initialId != 0) wordIs(0, initialId);
    }
    Words(String::IteratorConst& it, String::IteratorConst const& end) { Vel::parse(*this, it, end); }
    Words(Vel::NboAttrLog::In* in, Vel::StreamBogon) { Vel::read(*this, *in); }

    U16 size() const { return size_; }
    U64 word(U8 key) const {
        auto const found = words_.find(key);
        return found == words_.end() ? 0 : found->second;
    }
    void wordIs(U8 key, U64 word) & {
        words_[key] = word;
        ++changes_;
    }
    U64 wordDel(U8 key) & {
        U64 const was = word(key);
        changes_ += static_cast<U32>(words_.erase(key));
        return was;
    }
    U32 words() const { return static_cast<U32>(words_.size()); }
    U32 changes() const { return changes_; }
    bool wordExists(U8 key) const { return words_.contains(key); }
    friend bool operator==(Words const& a, Words const& b) { return a.size_ == b.size_ && a.words_ == b.words_; }
    friend bool operator<(Words const& a, Words const& b) { return a.words_ < b.words_; }

    static bool isTrue(Words const& w) { return !w.words_.empty(); }
    static Words minus(Words const& a, Words const& b) {
        return zip(a, b, [](U64 x, U64 y) { return x & ~y; });
    }
    static Words both(Words const& a, Words const& b) {
        return zip(a, b, [](U64 x, U64 y) { return x & y; });
    }
    static Words either(Words const& a, Words const& b) {
        return zip(a, b, [](U64 x, U64 y) { return x | y; });
    }
    static Words oneOf(Words const& a, Words const& b) {
        return zip(a, b, [](U64 x, U64 y) { return x ^ y; });
    }
    static Words inverse(Words const& a) {
        return zip(a, a, [](U64 x, U64) { return ~x; });
    }

    static String print(Words const& w);
    static Words scan(String::IteratorConst& it, String::IteratorConst const& end, Words*);
    static void write(Vel::NboAttrLog::Out& out, Words const& w);
    static void read(Words& w, Vel::NboAttrLog::In& in);
    static std::size_t streamSize(Words const& w) { return 3 + 9 * w.words_.size(); }

    static constexpr auto description() {
        return Vel::record("Fixture::Words", Vel::derived<&Words::size>("size"), Vel::ctorParam<U16>("initialId"),
            Vel::collection<U8, U64, &Words::word, &Words::wordIs, &Words::wordDel, &Words::words, &Words::changes,
                &Words::wordExists>("word"),
            Vel::declared("maxWords"), Vel::method<&Words::words>("words"))
            .with(Vel::constructor<U16, U16>, Vel::ordered, Vel::truth<&Words::isTrue>,
                Vel::textBy<&Words::print, &Words::scan>,
                Vel::streamBy<&Words::write, &Words::read, &Words::streamSize>,
                Vel::arithmetic<AttributeOp::difference, &Words::minus>,
                Vel::arithmetic<AttributeOp::bitAnd, &Words::both>, Vel::arithmetic<AttributeOp::bitOr, &Words::either>,
                Vel::arithmetic<AttributeOp::bitXor, &Words::oneOf>,
                Vel::arithmetic<AttributeOp::complement, &Words::inverse>);
    }

private:
    template <class F> static Words zip(Words const& a, Words const& b, F f) {
        Words result(a.size_, 0);
        for (auto const& [key, word] : a.words_) result.words_[key] = f(word, b.word(key));
        return result;
    }
    U16 size_ = 0;
    std::map<U8, U64> words_;
    U32 changes_ = 0;
};

// A plain record with a one-bit flag, as an observation is.
class Sample {
public:
    constexpr Sample() = default;
    constexpr Sample(U1 value, U32 count, Seconds when) : value_(value), count_(count), when_(when) {}
    Sample(String::IteratorConst& it, String::IteratorConst const& end) { Vel::parse(*this, it, end); }
    Sample(Vel::NboAttrLog::In* in, Vel::StreamBogon) { Vel::read(*this, *in); }

    constexpr bool value() const { return value_; }
    constexpr U32 count() const { return count_; }
    constexpr Seconds when() const { return when_; }
    friend bool operator==(Sample const&, Sample const&) = default;

    static constexpr auto description() {
        return Vel::record("Fixture::Sample", Vel::field<&Sample::value_>("value"),
            Vel::field<&Sample::count_>("count"), Vel::field<&Sample::when_>("when"));
    }

private:
    U1 value_ = false;
    U32 count_ = 0;
    Seconds when_;
};

// A setter that takes another value type, a method of three parameters.
class Tally {
public:
    constexpr Tally() = default;
    constexpr Tally(U1 current, U32 changes, Seconds last) : current_(current), changes_(changes), last_(last) {}
    Tally(String::IteratorConst& it, String::IteratorConst const& end) { Vel::parse(*this, it, end); }
    Tally(Vel::NboAttrLog::In* in, Vel::StreamBogon) { Vel::read(*this, *in); }

    void updateIs(Sample const& s) & { doUpdate(s.value(), s.count(), s.when()); }
    void doUpdate(bool val, U32 count, Seconds timestamp) & {
        current_ = val;
        changes_ += count;
        last_ = timestamp;
    }
    friend bool operator==(Tally const&, Tally const&) = default;

    static constexpr auto description() {
        return Vel::record("Fixture::Tally", Vel::field<&Tally::current_>("current"),
            Vel::field<&Tally::changes_>("changes"), Vel::field<&Tally::last_>("last"),
            Vel::setter<&Tally::updateIs>("update"),
            Vel::method<&Tally::doUpdate>("doUpdate", "val", "count", "timestamp"));
    }

private:
    U1 current_ = false;
    U32 changes_ = 0;
    Seconds last_;
};

// Read-only fields, one of them a string; functions that yield a new value of the type.
class MaybeText {
public:
    MaybeText() = default;
    MaybeText(String value, bool isSet) : value_(std::move(value)), isSet_(isSet) {}
    MaybeText(String::IteratorConst& it, String::IteratorConst const& end) { Vel::parse(*this, it, end); }
    MaybeText(Vel::NboAttrLog::In* in, Vel::StreamBogon) { Vel::read(*this, *in); }

    static MaybeText valueSet(String const& value) { return {value, true}; }
    static String valueDefault() { return {}; }
    static MaybeText valueInvalid() { return {}; }
    String toStrep() const { return isSet_ ? value_ : String("unset"); }
    friend bool operator==(MaybeText const&, MaybeText const&) = default;

    static constexpr auto description() {
        return Vel::record("Fixture::MaybeText", Vel::readOnlyField<&MaybeText::value_>("value"),
            Vel::readOnlyField<&MaybeText::isSet_>("isSet"), Vel::method<&MaybeText::valueSet>("valueSet", "value"),
            Vel::constant<&MaybeText::valueDefault>("valueDefault"),
            Vel::method<&MaybeText::valueInvalid>("valueInvalid"), Vel::method<&MaybeText::toStrep>("toStrep"));
    }

private:
    String value_;
    bool isSet_ = false;
};

// A number with a text form of its own, attributes that are computed but can be set, and arithmetic.
class MaybeNumber {
public:
    constexpr MaybeNumber() = default;
    constexpr MaybeNumber(U64 value) : value_(value) {}
    MaybeNumber(Vel::NboAttrLog::In* in, Vel::StreamBogon) { Vel::read(*this, *in); }

    static constexpr U64 nullBit() { return U64(1) << 63; }
    bool null() const { return value_ & nullBit(); }
    void nullIs(bool on) & { value_ = on ? value_ | nullBit() : value_ & ~nullBit(); }
    String stringValue() const { return null() ? String("None") : valueToStrep(value_); }
    void stringValueIs(String const& s) & {
        auto it = s.begin();
        MaybeNumber const parsed = scan(it, s.end(), nullptr);
        if (it != s.end()) Vel::throwRangeException("not a number or None");
        *this = parsed;
    }
    static String defaultAttribute() { return "stringValue"; }
    static bool equal(MaybeNumber const& a, MaybeNumber const& b) { return a.null() ? b.null() : a.value_ == b.value_; }
    static bool less(MaybeNumber const& a, MaybeNumber const& b) {
        return a.null() || b.null() ? !b.null() : a.value_ < b.value_;
    }
    static MaybeNumber sum(MaybeNumber const& a, MaybeNumber const& b) { return a.value_ + b.value_; }
    static MaybeNumber difference(MaybeNumber const& a, MaybeNumber const& b) { return a.value_ - b.value_; }
    static MaybeNumber product(MaybeNumber const& a, MaybeNumber const& b) { return a.value_ * b.value_; }
    static MaybeNumber quotient(MaybeNumber const& a, MaybeNumber const& b) { return a.value_ / b.value_; }
    static MaybeNumber scan(String::IteratorConst& it, String::IteratorConst const& end, MaybeNumber*);

    static constexpr auto description() {
        return Vel::number("Fixture::MaybeNumber", Vel::field<&MaybeNumber::value_>("value"),
            Vel::derived<&MaybeNumber::null, &MaybeNumber::nullIs>("null"),
            Vel::constant<&MaybeNumber::nullBit>("nullBit"),
            Vel::derived<&MaybeNumber::stringValue, &MaybeNumber::stringValueIs>("stringValue"),
            Vel::constant<&MaybeNumber::defaultAttribute>("defaultReprAttribute"))
            .with(Vel::textBy<&MaybeNumber::stringValue, &MaybeNumber::scan>, Vel::equality<&MaybeNumber::equal>,
                Vel::less<&MaybeNumber::less>, Vel::arithmetic<AttributeOp::sum, &MaybeNumber::sum>,
                Vel::arithmetic<AttributeOp::difference, &MaybeNumber::difference>,
                Vel::arithmetic<AttributeOp::product, &MaybeNumber::product>,
                Vel::arithmetic<AttributeOp::quotient, &MaybeNumber::quotient>);
    }

private:
    U64 value_ = 0;
};

// A default value that is no zero, a truth test of its own, three constructor arguments, a packed form.
class Stamp {
public:
    constexpr Stamp() = default;
    constexpr Stamp(U32 timestamp, U16 pid, U16 count) : timestamp_(timestamp), pid_(pid), count_(count) {}
    Stamp(String::IteratorConst& it, String::IteratorConst const& end) { Vel::parse(*this, it, end); }
    Stamp(Vel::NboAttrLog::In* in, Vel::StreamBogon) { Vel::read(*this, *in); }

    U64 packed() const { return U64(timestamp_) << 32 | U64(pid_) << 16 | count_; }
    static Stamp unpack(U64 packed) {
        return {static_cast<U32>(packed >> 32), static_cast<U16>(packed >> 16), static_cast<U16>(packed)};
    }
    void doInit() & {
        if (*this == Stamp()) timestamp_ = 1000;
    }
    U32 hash(U32 seed) const;
    friend bool operator==(Stamp const&, Stamp const&) = default;
    friend auto operator<=>(Stamp const&, Stamp const&) = default;
    static bool isTrue(Stamp const& s) { return !(s == Stamp()); }

    static constexpr auto description() {
        return Vel::record("Fixture::Stamp", Vel::readOnlyField<&Stamp::timestamp_>("timestamp"),
            Vel::readOnlyField<&Stamp::pid_>("pid"), Vel::readOnlyField<&Stamp::count_>("count"),
            Vel::derived<&Stamp::packed>("val"), Vel::method<&Stamp::doInit>("doInit"),
            Vel::method<&Stamp::unpack>("unpack", "packed"))
            .with(Vel::constructor<U32, U16, U16>, Vel::ordered, Vel::hashBy<&Stamp::hash>, Vel::truth<&Stamp::isTrue>);
    }

private:
    U32 timestamp_ = 0xFFFFFFFF;
    U16 pid_ = 0xFFFF;
    U16 count_ = 0xFFFF;
};

inline U32 Stamp::hash(U32 seed) const { return Vel::hashFields(*this, seed); }

// Comparisons with a tolerance, reached through reflection only.
class Moment {
public:
    constexpr Moment() = default;
    constexpr Moment(Seconds value, Seconds dummy) : value_(value), dummy_(dummy) {}
    Moment(String::IteratorConst& it, String::IteratorConst const& end) { Vel::parse(*this, it, end); }
    Moment(Vel::NboAttrLog::In* in, Vel::StreamBogon) { Vel::read(*this, *in); }

    bool isActive() const { return !(value_ == Seconds()); }
    bool equals(Seconds t) const { return close(value_, t); }
    static bool equal(Moment const& a, Moment const& b) { return close(a.value_, b.value_); }
    static bool less(Moment const& a, Moment const& b) { return !equal(a, b) && a.value_ < b.value_; }
    static bool isTrue(Moment const& m) { return !close(m.value_, 0.0); }

    static constexpr auto description() {
        return Vel::record("Fixture::Moment", Vel::readOnlyField<&Moment::value_>("value"),
            Vel::field<&Moment::dummy_>("dummy"), Vel::method<&Moment::isActive>("isActive"),
            Vel::method<&Moment::equals>("equals", "t"))
            .with(Vel::equality<&Moment::equal>, Vel::less<&Moment::less>, Vel::truth<&Moment::isTrue>);
    }

private:
    static bool close(Seconds a, Seconds b) {
        double const difference = a.value() - b.value();
        return difference < 0.001 && difference > -0.001;
    }
    Seconds value_;
    Seconds dummy_;
};

// A constant of the type itself.
class Version {
public:
    constexpr Version() = default;
    constexpr Version(U32 id, bool valid) : id_(id), valid_(valid) {}
    Version(String::IteratorConst& it, String::IteratorConst const& end) { Vel::parse(*this, it, end); }
    Version(Vel::NboAttrLog::In* in, Vel::StreamBogon) { Vel::read(*this, *in); }

    static Version null() { return {}; }
    U32 id() const { return id_; }
    bool valid() const { return valid_; }
    friend bool operator==(Version const&, Version const&) = default;

    static constexpr auto description() {
        return Vel::record("Fixture::Version", Vel::readOnlyField<&Version::id_>("id"),
            Vel::readOnlyField<&Version::valid_>("valid"), Vel::constant<&Version::null>("null"));
    }

private:
    U32 id_ = 0;
    bool valid_ = false;
};

// Every kind of field, values of other types among them; no equality.
class Everything {
public:
    Everything() = default;
    Everything(String::IteratorConst& it, String::IteratorConst const& end) { Vel::parse(*this, it, end); }
    Everything(Vel::NboAttrLog::In* in, Vel::StreamBogon) { Vel::read(*this, *in); }

    bool flag = false;
    U1 bit = false;
    U8 small = 0;
    U16 middle = 0;
    U32 large = 0;
    U64 huge = 0;
    F64 ratio = 0;
    Seconds time;
    String text;
    Version version;
    Chip chip;
    MaybeText maybe;

    static constexpr auto description() {
        return Vel::record("Fixture::Everything", Vel::field<&Everything::flag>("flag"),
            Vel::field<&Everything::bit>("bit"), Vel::field<&Everything::small>("small"),
            Vel::field<&Everything::middle>("middle"), Vel::field<&Everything::large>("large"),
            Vel::field<&Everything::huge>("huge"), Vel::field<&Everything::ratio>("ratio"),
            Vel::field<&Everything::time>("time"), Vel::field<&Everything::text>("text"),
            Vel::field<&Everything::version>("version"), Vel::field<&Everything::chip>("chip"),
            Vel::field<&Everything::maybe>("maybe"));
    }
};

// An entity with a number, a value, and a pointer to another entity.
class Leaf : public Vel::EntityOf<Leaf> {
public:
    explicit Leaf(String const& name);
    ~Leaf() override;

    U32 size() const { return size_; }
    void sizeIs(U32 size) { velSet<&Leaf::size_>(size); }
    Version version() const { return version_; }
    void versionIs(Version const& version) { velSet<&Leaf::version_>(version); }
    Ptr<Leaf> peer() const { return peer_; }
    void peerIs(Ptr<Leaf> const& peer) { velSet<&Leaf::peer_>(peer); }
    U32 cached() const { return cached_; }
    void cachedIs(U32 value) const { velCache<&Leaf::cached_>(value); }
    U32 grown(U32 by) const { return size_ + by; }
    void handleParent() override { ++parentChanges; }

    int parentChanges = 0;

    static constexpr auto description() {
        return Vel::entity("Fixture::Leaf", Vel::attribute<&Leaf::size_, &Leaf::size, &Leaf::sizeIs>("size"),
            Vel::attribute<&Leaf::version_, &Leaf::version, &Leaf::versionIs>("version"),
            Vel::attribute<&Leaf::peer_, &Leaf::peer, &Leaf::peerIs>("peer"),
            Vel::attribute<&Leaf::cached_, &Leaf::cached>("cached"), Vel::method<&Leaf::grown>("grown", "by"));
    }

private:
    U32 size_ = 0;
    Version version_;
    Ptr<Leaf> peer_;
    U32 cached_ = 0;
};

// Derives from another described entity type: its attributes come after the base's.
class Twig : public Vel::EntityOf<Twig, Leaf> {
public:
    explicit Twig(String const& name);
    ~Twig() override;

    bool present() const { return present_; }
    void presentIs(bool present) { velSet<&Twig::present_>(present); }

    static constexpr auto description() {
        return Vel::entity(
            "Fixture::Twig", Vel::attribute<&Twig::present_, &Twig::present, &Twig::presentIs>("present"))
            .with(Vel::base<Leaf>);
    }

private:
    bool present_ = false;
};

// An entity without a name, which no directory can hold.
class Nameless : public Vel::EntityOf<Nameless> {
public:
    Nameless();
    ~Nameless() override;

    static constexpr auto description() { return Vel::entity("Fixture::Nameless"); }
};

// An entity that a directory cannot make, since its constructor takes more than a name.
class Demanding : public Vel::EntityOf<Demanding> {
public:
    Demanding(String const& name, U32 size);
    ~Demanding() override;

    U32 size = 0;

    static constexpr auto description() { return Vel::entity("Fixture::Demanding"); }
};

}  // namespace Fixture
