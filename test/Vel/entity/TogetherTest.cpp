#include "Vel/entity/Together.h"

#include "Vel/describe/Module.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <stdexcept>
#include <string>

namespace TogetherTestTypes {

class Gauge : public Vel::EntityOf<Gauge> {
public:
    explicit Gauge(Vel::String const& name) : EntityOf(name) {}

    Vel::U32 low() const { return low_; }
    void lowIs(Vel::U32 v) { velSet<&Gauge::low_>(v); }
    Vel::U32 high() const { return high_; }
    void highIs(Vel::U32 v) { velSet<&Gauge::high_>(v); }
    void markIs(Vel::U8 key, Vel::U32 mark) {
        marks_[key] = mark;
        velNotify<"mark">(key);
    }
    Vel::U32 mark(Vel::U8 key) const { return marks_.at(key); }

    static constexpr auto description() {
        return Vel::entity("TogetherTest::Gauge", Vel::attribute<&Gauge::low_, &Gauge::low, &Gauge::lowIs>("low"),
            Vel::attribute<&Gauge::high_, &Gauge::high, &Gauge::highIs>("high"),
            Vel::collection<Vel::U8, Vel::U32, &Gauge::mark, &Gauge::markIs>("mark"));
    }

private:
    Vel::U32 low_ = 0;
    Vel::U32 high_ = 0;
    std::map<Vel::U8, Vel::U32> marks_;
};

// A key that counts how often one is encoded.
struct CountedKey {
    Vel::U32 number = 0;
    static inline unsigned encoded = 0;

    static void write(Vel::NboAttrLog::Out& out, CountedKey const& key) {
        ++encoded;
        out << key.number;
    }
    static void read(CountedKey& key, Vel::NboAttrLog::In& in) { key.number = in.nextU32(); }
    static std::size_t streamSize(CountedKey const&) { return 4; }
    static constexpr auto description() {
        return Vel::record("TogetherTest::CountedKey", Vel::field<&CountedKey::number>("number"))
            .with(Vel::streamBy<&CountedKey::write, &CountedKey::read, &CountedKey::streamSize>);
    }
};

namespace {

using Vel::AttributeId;
using Vel::HeldChanges;
using Vel::NotifieeKey;
using Vel::Ptr;
using Vel::together;
using Vel::U32;
using Vel::U8;

// Observers that write what they are told of, and what the gauge has then, into one text.
class TogetherTest : public testing::Test {
protected:
    auto observer(char name) {
        return Vel::notifieeOf(*gauge, [this, name](AttributeId id, NotifieeKey const* key) {
            told += name + std::string(gauge->fwkType().attributeOfId(id)->name());
            if (key) told += std::to_string(key->as<U8>());
            told += "(" + std::to_string(gauge->low()) + "," + std::to_string(gauge->high()) + ") ";
        });
    }

    Ptr<Gauge> gauge = Gauge::newEntity("g");
    std::string told;
};

TEST_F(TogetherTest, ObserversAreToldWhenAllIsSet) {
    auto const a = observer('a'), b = observer('b');
    together(*gauge, [&] {
        gauge->highIs(9);
        gauge->lowIs(3);
        EXPECT_EQ(told, "");
    });
    EXPECT_EQ(told, "ahigh(3,9) alow(3,9) bhigh(3,9) blow(3,9) ");
    told.clear();
    gauge->lowIs(4);
    EXPECT_EQ(told, "alow(4,9) blow(4,9) ");
}

TEST_F(TogetherTest, OnlyObserverIsToldWhenAllIsSet) {
    auto const a = observer('a');
    together(*gauge, [&] {
        gauge->highIs(9);
        gauge->lowIs(3);
    });
    gauge->lowIs(4);
    EXPECT_EQ(told, "ahigh(3,9) alow(3,9) alow(4,9) ");
}

TEST_F(TogetherTest, EachAttributeAndKeyIsToldOnce) {
    auto const a = observer('a');
    together(*gauge, [&] {
        for (U32 i = 1; i <= 3; ++i) {
            gauge->markIs(7, i);
            gauge->lowIs(i);
            gauge->markIs(8, i);
        }
    });
    EXPECT_EQ(told, "amark7(3,0) alow(3,0) amark8(3,0) ");
}

// A key that changes is not compared with all those before it.
TEST_F(TogetherTest, ManyKeysAreEncodedOnceEach) {
    HeldChanges held(*gauge);
    constexpr U32 count = 1000;
    for (U32 i = 0; i < 2 * count; ++i) {
        CountedKey const key{i % count};
        NotifieeKey const changed(key);
        held.add(1, &changed);
    }
    EXPECT_EQ(held.changes().size(), count);
    EXPECT_LE(CountedKey::encoded, 4 * count);
}

TEST_F(TogetherTest, NobodyIsToldOfNothing) {
    auto const a = observer('a');
    together(*gauge, [&] { gauge->lowIs(0); });
    EXPECT_EQ(told, "");
}

TEST_F(TogetherTest, EntityWithoutObserversHasNoneAfterwards) {
    together(*gauge, [&] { gauge->lowIs(1); });
    EXPECT_EQ(gauge->notifieeList()->size(), 0u);
    std::unique_ptr<Vel::Notifiee> late;
    together(*gauge, [&] {
        gauge->lowIs(2);
        late = observer('l');
    });
    EXPECT_EQ(told, "llow(2,0) ") << "of a change that it was not there for, but never of too little";
}

TEST_F(TogetherTest, WithinAnotherItIsToldByThatOne) {
    auto const a = observer('a');
    together(*gauge, [&] {
        gauge->markIs(1, 1);
        together(*gauge, [&] {
            gauge->lowIs(1);
            gauge->markIs(1, 2);
        });
        EXPECT_EQ(told, "");
        gauge->highIs(2);
    });
    EXPECT_EQ(told, "amark1(1,2) alow(1,2) ahigh(1,2) ");
}

TEST_F(TogetherTest, OtherEntitiesAreNotHeldBack) {
    auto const other = Gauge::newEntity("other");
    auto const a = Vel::notifieeOf(*other, [&](AttributeId) { told += "other "; });
    together(*gauge, [&] {
        other->lowIs(1);
        EXPECT_EQ(told, "other ");
    });
}

TEST_F(TogetherTest, WhatChangedBeforeAnExceptionIsTold) {
    auto const a = observer('a');
    EXPECT_THROW(together(*gauge,
                     [&] {
                         gauge->lowIs(1);
                         throw std::runtime_error("no more");
                     }),
        std::runtime_error);
    EXPECT_EQ(told, "alow(1,0) ");
    gauge->highIs(1);
    EXPECT_EQ(told, "alow(1,0) ahigh(1,1) ");
}

TEST_F(TogetherTest, ExceptionOfTheChangePassesEvenIfAnObserverThrowsToo) {
    auto const a = Vel::notifieeOf(*gauge, [&](AttributeId) { throw std::logic_error("an observer"); });
    auto const change = [&](bool throws) {
        gauge->lowIs(gauge->low() + 1);
        if (throws) throw std::runtime_error("the change");
    };
    EXPECT_THROW(together(*gauge, [&] { change(true); }), std::runtime_error);
    EXPECT_THROW(together(*gauge, [&] { change(false); }), std::logic_error);
}

TEST_F(TogetherTest, ObserverThatWithdrawsIsToldNoMore) {
    std::unique_ptr<Vel::Notifiee> once;
    once = Vel::notifieeOf(*gauge, [&](AttributeId) {
        told += "once ";
        once = nullptr;
    });
    auto const b = observer('b');
    together(*gauge, [&] {
        gauge->lowIs(1);
        gauge->highIs(2);
    });
    EXPECT_EQ(told, "once blow(1,2) bhigh(1,2) ");
}

TEST_F(TogetherTest, EntityStaysUntilItsObserversAreTold) {
    auto const a = Vel::notifieeOf(*gauge, [&](AttributeId) { told += "told "; });
    Gauge& leaving = *gauge;
    together(leaving, [&] {
        leaving.lowIs(1);
        leaving.highIs(1);
        gauge = nullptr;
    });
    EXPECT_EQ(told, "told told ");
}

TEST_F(TogetherTest, WhatIsNotToldIsDropped) {
    auto const a = observer('a');
    {
        HeldChanges held(*gauge);
        gauge->lowIs(1);
        gauge->highIs(1);
        ASSERT_EQ(held.changes().size(), 2u);
        held.dropIf(
            [](HeldChanges::Change const& change) { return change.attribute == Vel::attributeId<Gauge>("low"); });
        held.tell();
        gauge->lowIs(2);
    }
    EXPECT_EQ(told, "ahigh(1,1) alow(2,1) ");
    told.clear();
    {
        HeldChanges const held(*gauge);
        gauge->lowIs(3);
    }
    gauge->highIs(3);
    EXPECT_EQ(told, "ahigh(3,3) ");
}

}  // namespace

}  // namespace TogetherTestTypes

VEL_MODULE(TogetherTest, 6a4913ccbfcb2269, TogetherTestTypes::Gauge, TogetherTestTypes::CountedKey);
