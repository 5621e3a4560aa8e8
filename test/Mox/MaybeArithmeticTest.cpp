#include "Mox/MaybeTypes.h"

#include "RecordTest.h"

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <optional>
#include <random>
#include <vector>

// Values as a whole: truth, comparison and arithmetic, by operators and by reflection.
namespace {

using Mox::MaybeU63;
using Vel::AttributeOp;
using Vel::U64;

constexpr U64 absentWord = 9223372036854775808ul;
constexpr U64 largest = 9223372036854775807ul;

// What reflection gives for an arithmetic operation: the raw word.
U64 computed(AttributeOp op, MaybeU63 a, MaybeU63 b) {
    MaybeU63 result = 77;
    EXPECT_EQ(valueOp(a, op, &result, &b), 0);
    return result.value();
}

TEST(MaybeU63ArithmeticTest, OnlyTheNumberZeroIsFalse) {
    EXPECT_FALSE(truthOf(MaybeU63()));
    EXPECT_TRUE(truthOf(MaybeU63(1)));
    EXPECT_TRUE(truthOf(MaybeU63(largest)));
    EXPECT_TRUE(truthOf(MaybeU63(absentWord)));
    EXPECT_TRUE(truthOf(MaybeU63(absentWord + 1)));
}

TEST(MaybeU63ArithmeticTest, AbsentValuesAreEqualWhateverTheirLowBits) {
    EXPECT_TRUE(equalByReflection<MaybeU63>(absentWord + 1, absentWord));
    EXPECT_TRUE(MaybeU63(absentWord + 1) == MaybeU63(absentWord));
    EXPECT_FALSE(equalByReflection<MaybeU63>(absentWord, 0));
    EXPECT_FALSE(equalByReflection<MaybeU63>(0, absentWord));
    EXPECT_FALSE(equalByReflection<MaybeU63>(absentWord + 5, 5));
    EXPECT_TRUE(equalByReflection<MaybeU63>(5, 5));
    EXPECT_FALSE(equalByReflection<MaybeU63>(5, 6));
}

TEST(MaybeU63ArithmeticTest, AbsentSortsBeforeEveryNumber) {
    EXPECT_TRUE(lessByReflection<MaybeU63>(absentWord, 0));
    EXPECT_TRUE(lessByReflection<MaybeU63>(18446744073709551615ul, 0));
    EXPECT_FALSE(lessByReflection<MaybeU63>(0, absentWord));
    EXPECT_FALSE(lessByReflection<MaybeU63>(largest, absentWord));
    EXPECT_FALSE(lessByReflection<MaybeU63>(absentWord, absentWord + 1));
    EXPECT_FALSE(lessByReflection<MaybeU63>(absentWord + 1, absentWord));
    EXPECT_TRUE(lessByReflection<MaybeU63>(5, 6));
    EXPECT_FALSE(lessByReflection<MaybeU63>(5, 5));
    EXPECT_FALSE(lessByReflection<MaybeU63>(largest, 6));
}

TEST(MaybeU63ArithmeticTest, SumWrapsAroundAt63Bits) {
    EXPECT_EQ(computed(AttributeOp::sum, 2, 3), 5u);
    EXPECT_EQ(computed(AttributeOp::sum, largest, 1), 0u);
    EXPECT_EQ(computed(AttributeOp::sum, largest, largest), largest - 1);
}

TEST(MaybeU63ArithmeticTest, IncrementIsTheSum) {
    MaybeU63 value = 5;
    value.valueInc(3);
    EXPECT_EQ(value.value(), 8u);
    value.valueInc(0);
    EXPECT_EQ(value.value(), 8u);
    value.valueIs(largest);
    value.valueInc(2);
    EXPECT_EQ(value.value(), 1u);
    value.valueIs(absentWord + 7);
    value.valueInc(1);
    EXPECT_EQ(value.value(), absentWord);
    value.valueIs(5);
    value.valueInc(absentWord + 1);
    EXPECT_EQ(value.value(), absentWord);
}

TEST(MaybeU63ArithmeticTest, DifferenceWrapsAroundAt63Bits) {
    EXPECT_EQ(computed(AttributeOp::difference, 5, 3), 2u);
    EXPECT_EQ(computed(AttributeOp::difference, 0, 1), largest);
    EXPECT_EQ(computed(AttributeOp::difference, 0, largest), 1u);
}

TEST(MaybeU63ArithmeticTest, ProductWrapsAroundAt63Bits) {
    EXPECT_EQ(computed(AttributeOp::product, 6, 7), 42u);
    EXPECT_EQ(computed(AttributeOp::product, 4611686018427387904ul, 2), 0u);
    EXPECT_EQ(computed(AttributeOp::product, largest, largest), 1u);
    EXPECT_EQ(computed(AttributeOp::product, 4611686018427387904ul, 3), 4611686018427387904ul);
}

TEST(MaybeU63ArithmeticTest, QuotientIsTruncated) {
    EXPECT_EQ(computed(AttributeOp::quotient, 7, 2), 3u);
    EXPECT_EQ(computed(AttributeOp::quotient, 2, 7), 0u);
    EXPECT_EQ(computed(AttributeOp::quotient, largest, 1), largest);
    EXPECT_EQ(computed(AttributeOp::quotient, 0, 7), 0u);
}

TEST(MaybeU63ArithmeticTest, AbsenceSpreadsAsTheCanonicalWord) {
    for (auto const op : {AttributeOp::sum, AttributeOp::difference, AttributeOp::product, AttributeOp::quotient}) {
        EXPECT_EQ(computed(op, absentWord + 5, 3), absentWord);
        EXPECT_EQ(computed(op, 3, absentWord + 5), absentWord);
        EXPECT_EQ(computed(op, absentWord + 5, absentWord + 7), absentWord);
        EXPECT_EQ(computed(op, absentWord, absentWord), absentWord);
    }
}

TEST(MaybeU63ArithmeticTest, NothingIsDividedByZeroWhenASideIsAbsent) {
    EXPECT_EQ(computed(AttributeOp::quotient, absentWord + 5, 0), absentWord);
    EXPECT_EQ(computed(AttributeOp::quotient, 5, absentWord), absentWord);  // whose number would be 0
    EXPECT_EQ(computed(AttributeOp::quotient, absentWord, absentWord), absentWord);
}

TEST(MaybeU63ArithmeticTest, OnlyTheseOperationsAreAnswered) {
    MaybeU63 object = 5;
    EXPECT_EQ(wholeValueOps(object), (std::vector<Vel::U32>{11, 12, 13, 14, 15, 16, 17}));
    EXPECT_EQ(object.value(), 5u);
}

// --- every pair of absent and present ---

// A number below 2^63 or nothing, computed the long way.
using Model = std::optional<U64>;
__extension__ using Wide = unsigned __int128;
constexpr Wide modulus = Wide(1) << 63;

Model model(MaybeU63 maybe) { return maybe.value() < absentWord ? Model(maybe.value()) : Model(); }
template <class F> U64 modelled(Model a, Model b, F f) {
    return a && b ? static_cast<U64>(f(Wide(*a), Wide(*b)) % modulus) : absentWord;
}

void expectAsModelled(MaybeU63 a, MaybeU63 b) {
    SCOPED_TRACE(std::to_string(a.value()) + " and " + std::to_string(b.value()));
    Model const x = model(a);
    Model const y = model(b);
    EXPECT_EQ(a == b, x == y);
    EXPECT_EQ(a != b, x != y);
    EXPECT_EQ(a < b, x < y);  // of optionals too nothing is the least
    EXPECT_EQ(equalByReflection(a, b), x == y);
    EXPECT_EQ(lessByReflection(a, b), x < y);
    U64 const sum = modelled(x, y, std::plus<>());
    U64 const difference = modelled(x, y, [](Wide m, Wide n) { return m + modulus - n; });
    U64 const product = modelled(x, y, std::multiplies<>());
    EXPECT_EQ(computed(AttributeOp::sum, a, b), sum);
    EXPECT_EQ((a + b).value(), sum);
    EXPECT_EQ(computed(AttributeOp::difference, a, b), difference);
    EXPECT_EQ((a - b).value(), difference);
    EXPECT_EQ(computed(AttributeOp::product, a, b), product);
    EXPECT_EQ((a * b).value(), product);
    if (x && y == Model(0)) return;  // faults
    U64 const quotient = modelled(x, y, std::divides<>());
    EXPECT_EQ(computed(AttributeOp::quotient, a, b), quotient);
    EXPECT_EQ((a / b).value(), quotient);
}

TEST(MaybeU63ArithmeticTest, EdgesAgreeWithNumbersThatMayBeMissing) {
    static constexpr U64 edges[] = {0, 1, 2, 0xFFFFFFFFul, 0x100000000ul, 4611686018427387904ul, largest - 1, largest,
        absentWord, absentWord + 1, 18446744073709551615ul};
    for (U64 const a : edges)
        for (U64 const b : edges) expectAsModelled(a, b);
}

TEST(MaybeU63ArithmeticTest, RandomPairsAgreeWithNumbersThatMayBeMissing) {
    std::mt19937_64 random(20261121);
    auto const word = [&] {  // all magnitudes; every fourth absent
        U64 const number = (random() >> 1) >> (random() % 63);
        return random() % 4 == 0 ? number | absentWord : number;
    };
    for (int i = 0; i < 20000 && !testing::Test::HasFailure(); ++i) {
        U64 const a = word();
        expectAsModelled(a, i % 16 == 0 ? a : word());
    }
}

// --- division by zero ---

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool sanitizerTakesSignals = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(undefined_behavior_sanitizer)
constexpr bool sanitizerTakesSignals = true;
#else
constexpr bool sanitizerTakesSignals = false;
#endif
#else
constexpr bool sanitizerTakesSignals = false;
#endif

TEST(MaybeU63DeathTest, DivisionByAPresentZeroFaults) {
    if (sanitizerTakesSignals) GTEST_SKIP() << "the sanitizer ends the process its own way";
    EXPECT_EXIT(computed(AttributeOp::quotient, 5, 0), testing::KilledBySignal(SIGFPE), "");
    EXPECT_EXIT(computed(AttributeOp::quotient, 0, 0), testing::KilledBySignal(SIGFPE), "");
    EXPECT_EXIT((void)(MaybeU63(largest) / MaybeU63(0)), testing::KilledBySignal(SIGFPE), "");
}

TEST(MaybeU63DeathTest, DivisionByZeroYieldsNothingToWhoeverIgnoresTheSignal) {
    auto const divide = [] {
        std::signal(SIGFPE, SIG_IGN);
        computed(AttributeOp::quotient, 5, 0);
    };
    EXPECT_DEATH(divide(), "");
}

}  // namespace
