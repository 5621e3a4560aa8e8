#include "Vel/base/Assert.h"
#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/describe/Value.h"

// A statistic that the tool has never heard of, with what may go wrong when it is fed.
namespace Test {

// A number whose parser trusts its input, as no parser should.
class Sample {
public:
    constexpr Sample() = default;
    Sample(Vel::U16 value) : value_(value) {}
    Sample(Vel::String::IteratorConst& it, Vel::String::IteratorConst const& end) {
        Vel::parse(*this, it, end);
        if (value_ == 13)
            Vel::assertionFailed("value != 13", "/src/Test/Average", 1, "Test::Sample::Sample(Vel::String)");
    }
    Vel::U16 value() const { return value_; }
    friend bool operator==(Sample, Sample) = default;

    static constexpr auto description() { return Vel::number("Test::Sample", Vel::field<&Sample::value_>("value")); }

private:
    Vel::U16 value_ = 0;
};

class Average {
public:
    constexpr Average() = default;

    void updateIs(Sample const& sample) & {
        sum_ += sample.value();
        if (sample.value() > 1000) Vel::throwRangeException("a sample above 1000");
        ++samples_;
    }
    friend bool operator==(Average const&, Average const&) = default;

    static constexpr auto description() {
        return Vel::record("Test::Average", Vel::field<&Average::sum_>("sum"),
            Vel::field<&Average::samples_>("samples"), Vel::setter<&Average::updateIs>("update"));
    }

private:
    Vel::U32 sum_ = 0;
    Vel::U32 samples_ = 0;
};

}  // namespace Test

VEL_MODULE(Average, 322fbe31e6992a67, Test::Sample, Test::Average);
