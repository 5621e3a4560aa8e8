#include "StatisticsTest.h"

#include <cstdint>
#include <random>

// Statistics in lock step with models that know no modular arithmetic and no short cuts: a model says rule by rule what
// an observation adds, as a wide number, and reduces it only when it is compared.
namespace {

using Mox::ConditionOrChanged;
using Mox::ConditionOrChangedStat;
using Mox::ConditionOrCountStat;
using Mox::ConditionStat;
using Mox::Count;
using Mox::CountOrChangedStat;
using Mox::CountStat;
using Mox::Event;
using Mox::EventOrCount;
using Mox::EventOrCountStat;
using Mox::EventStat;
using Vel::U32;

constexpr std::uint64_t range = 4294967296;  // counters are modulo this

// What a statistic should hold. `total` is all that was ever counted, from its beginning.
struct Model {
    bool current = false;
    std::uint64_t total = 0;
    U32 lastCount = 0;
    double time = 0.0;

    U32 counter() const { return static_cast<U32>(total % range); }
    void counts(std::uint64_t n, double t) {
        total += n;
        time = t;
    }
};

// --- one rule each, with the values that its type shows ---

template <class S> struct Rule;

template <> struct Rule<ConditionStat> {
    using Observation = Event;
    static void apply(Model& m, Event const& e) {
        if (e.value() != m.current) m.counts(1, e.when().value());
        m.current = e.value();
    }
    static ConditionStat shown(Model const& m) { return {m.current, m.counter(), m.time}; }
};
template <> struct Rule<EventStat> {
    using Observation = Event;
    static void apply(Model& m, Event const& e) {
        m.current = e.value();
        if (e.value()) m.counts(1, e.when().value());
    }
    static EventStat shown(Model const& m) { return {m.current, m.counter(), m.time}; }
};
template <> struct Rule<CountStat> {
    using Observation = Count;
    static void apply(Model& m, Count const& e) {
        if (e.count() != 0) m.counts(e.count(), e.when().value());
    }
    static CountStat shown(Model const& m) { return {m.counter(), m.time}; }
};
template <> struct Rule<EventOrCountStat> {
    using Observation = EventOrCount;
    static void apply(Model& m, EventOrCount const& e) {
        if (e.count() != 0)
            m.counts(e.count(), e.when().value());
        else if (e.value())
            m.counts(1, e.when().value());
    }
    static EventOrCountStat shown(Model const& m) { return {m.counter(), m.time}; }
};
template <> struct Rule<ConditionOrCountStat> {
    using Observation = EventOrCount;
    static void apply(Model& m, EventOrCount const& e) {
        if (e.count() == 0) {
            if (e.value() != m.current) m.counts(1, e.when().value());
        } else {
            std::uint64_t const risesAndFalls = 2 * std::uint64_t(e.count());
            m.counts(m.current ? risesAndFalls : risesAndFalls - 1, e.when().value());
            if (!e.value()) m.counts(1, e.when().value());  // the final fall
        }
        m.current = e.value();
    }
    static ConditionOrCountStat shown(Model const& m) { return {m.current, m.counter(), m.time}; }
};
template <> struct Rule<ConditionOrChangedStat> {
    using Observation = ConditionOrChanged;
    static void apply(Model& m, ConditionOrChanged const& e) {
        if (e.changed())
            m.counts(e.current() == m.current ? 2 : 1, e.when().value());
        else if (e.current() != m.current)
            m.counts(1, e.when().value());
        m.current = e.current();
    }
    static ConditionOrChangedStat shown(Model const& m) { return {m.current, m.counter(), m.time}; }
};
template <> struct Rule<CountOrChangedStat> {
    using Observation = Count;
    static void apply(Model& m, Count const& e) {
        if (e.count() == 0) return;
        m.counts(1, e.when().value());
        m.lastCount = e.count();
    }
    static CountOrChangedStat shown(Model const& m) { return {m.lastCount, m.counter(), m.time}; }
};

// --- random observations ---

class Source {
public:
    bool flag() { return random_() % 2 != 0; }
    unsigned below(unsigned n) { return static_cast<unsigned>(random_() % n); }
    U32 count() {  // often none or few, and often close to where doubling or adding wraps around
        static constexpr U32 edges[] = {1, 2, 0x7FFFFFFFu, 0x80000000u, 0x80000001u, 0xFFFFFFFEu, 0xFFFFFFFFu};
        switch (below(4)) {
        case 0:
            return 0;
        case 1:
            return edges[below(7)];
        case 2:
            return below(20);
        default:
            return static_cast<U32>(random_());
        }
    }
    double time() { return static_cast<double>(random_() % 2000000) / 8.0 - 1000.0; }  // in no order

    template <class E> E observation();

private:
    std::mt19937_64 random_{20261121};
};
template <> Event Source::observation() { return {flag(), time()}; }
template <> Count Source::observation() { return {count(), time()}; }
template <> EventOrCount Source::observation() {
    bool const value = flag();
    return {value, count(), time()};
}
template <> ConditionOrChanged Source::observation() {
    bool const current = flag();
    return {current, flag(), time()};
}

void increment(auto& s, U32 n) {
    if constexpr (requires { s.countInc(n); })
        s.countInc(n);
    else
        s.changesInc(n);
}

template <class T> class StatisticModelTest : public testing::Test {};
TYPED_TEST_SUITE(StatisticModelTest, StatisticTypes, TypeNames);

TYPED_TEST(StatisticModelTest, AgreesWithItsRuleOverLongSequences) {
    using Observation = typename Rule<TypeParam>::Observation;
    Source source;
    Model model;
    TypeParam s;
    for (unsigned step = 0; step < 50000; ++step) {
        if (source.below(50) == 0) {
            // A leap, often to just below the wrap, so that single steps take the counter over it.
            U32 const leap = source.flag() ? source.count() : static_cast<U32>(range - 3) - model.counter();
            increment(s, leap);
            model.total += leap;
        } else {
            auto const observation = source.observation<Observation>();
            if (source.flag())
                s.updateIs(observation);
            else
                byParts(s, observation);
            Rule<TypeParam>::apply(model, observation);
        }
        ASSERT_EQ(s, Rule<TypeParam>::shown(model)) << "step " << step;
    }
    EXPECT_GT(model.total / range, 100u) << "the counter hardly wrapped";
}

TYPED_TEST(StatisticModelTest, CanBeSentAwayAndContinuedAnywhere) {
    using Observation = typename Rule<TypeParam>::Observation;
    Source source;
    TypeParam stays;
    TypeParam travels;
    for (unsigned step = 0; step < 2000; ++step) {
        auto const observation = source.observation<Observation>();
        stays.updateIs(observation);
        travels.updateIs(observation);
        if (step % 2) {
            travels = Vel::strepToValue<TypeParam>(valueToStrep(travels));
        } else {
            Vel::NboAttrLog::Out out;
            out << travels;
            Vel::NboAttrLog::In in(out.bytes());
            travels = TypeParam(&in, Vel::StreamBogon());
        }
        ASSERT_EQ(travels, stays) << "step " << step;
    }
}

// --- signals: what a statistic says is compared with what really happened ---

// A line that goes up and down between observations.
struct Signal {
    bool up = false;
    U32 rises = 0;  // since the last observation
    std::uint64_t transitions = 0;

    void flip() {
        up = !up;
        rises += up ? 1 : 0;
        ++transitions;
    }
};

TEST(StatisticSignalTest, CountedRisesTellEveryTransition) {
    Source source;
    Signal signal;
    ConditionOrCountStat s;
    for (unsigned step = 0; step < 20000; ++step) {
        for (unsigned flips = source.below(8); flips > 0; --flips) signal.flip();
        s.doUpdate(signal.up, signal.rises, step);
        signal.rises = 0;
        ASSERT_EQ(s.changes(), signal.transitions) << "step " << step;
        ASSERT_EQ(s.current(), signal.up);
    }
}

TEST(StatisticSignalTest, ChangedFlagTellsEveryTransitionOfALineThatChangesTwiceAtMost) {
    Source source;
    Signal signal;
    ConditionOrChangedStat s;
    for (unsigned step = 0; step < 20000; ++step) {
        unsigned const flips = source.below(3);
        for (unsigned i = 0; i < flips; ++i) signal.flip();
        s.updateIs(ConditionOrChanged(signal.up, flips > 0, step));
        ASSERT_EQ(s.changes(), signal.transitions) << "step " << step;
        ASSERT_EQ(s.current(), signal.up);
    }
}

TEST(StatisticSignalTest, StateAloneTellsEveryTransitionOfALineThatChangesOnceAtMost) {
    Source source;
    Signal signal;
    ConditionStat a;
    ConditionOrChangedStat b;
    ConditionOrCountStat c;
    double lastFlip = 0.0;
    for (unsigned step = 1; step < 20000; ++step) {
        if (source.flag()) {
            signal.flip();
            lastFlip = step;
        }
        a.doUpdate(signal.up, step);
        b.doUpdate(signal.up, false, step);
        c.doUpdate(signal.up, 0, step);
        auto const transitions = static_cast<U32>(signal.transitions);
        ASSERT_EQ(a, ConditionStat(signal.up, transitions, lastFlip));
        ASSERT_EQ(b, ConditionOrChangedStat(signal.up, transitions, lastFlip));
        ASSERT_EQ(c, ConditionOrCountStat(signal.up, transitions, lastFlip));
    }
}

}  // namespace
