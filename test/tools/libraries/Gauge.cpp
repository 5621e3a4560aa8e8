#include "Vel/base/Assert.h"
#include "Vel/describe/Module.h"
#include "Vel/describe/Value.h"

// Types that the tool has never heard of, with what may go wrong when one reads them.
namespace Test {

class Gauge {
public:
    constexpr Gauge() = default;

    Vel::U32 part() const {  // REQUIRES: level is not 0
        if (level_ == 0) Vel::assertionFailed("level != 0", "/src/Test/Gauge", 1, "U32 Test::Gauge::part() const");
        return 1000 / level_;
    }
    Vel::U32 raise(Vel::U16 by, bool twice) & { return level_ += twice ? 2u * by : by; }
    static constexpr Vel::U32 limit() { return 1000; }
    friend bool operator==(Gauge const&, Gauge const&) = default;

    static constexpr auto description() {
        return Vel::record("Test::Gauge", Vel::field<&Gauge::level_>("level"), Vel::field<&Gauge::label_>("label"),
            Vel::derived<&Gauge::part>("part"), Vel::constant<&Gauge::limit>("limit"),
            Vel::method<&Gauge::raise>("raise", "by", "twice"))
            .with(Vel::hashBy<&Gauge::hash>);
    }

private:
    Vel::U32 hash(Vel::U32) const { return level_; }

    Vel::U32 level_ = 0;
    Vel::String label_;
};

// A number whose parser trusts its input, as no parser should, and one that throws without saying where.
class Fragile {
public:
    constexpr Fragile() = default;
    Fragile(Vel::U16 value) : value_(value) { check(); }
    Fragile(Vel::String::IteratorConst& it, Vel::String::IteratorConst const& end) {
        Vel::parse(*this, it, end);
        check();
    }
    friend bool operator==(Fragile, Fragile) = default;

    static constexpr auto description() { return Vel::number("Test::Fragile", Vel::field<&Fragile::value_>("value")); }

private:
    void check() const {
        if (value_ == 13)
            Vel::assertionFailed("value != 13", "/src/Test/Gauge", 2, "void Test::Fragile::check() const");
        if (value_ == 14) Vel::throwRangeException("14 is taken");
    }
    Vel::U16 value_ = 0;
};

}  // namespace Test

VEL_MODULE(Gauge, 151e8898ba266406, Test::Gauge, Test::Fragile);
