#include "Mox/ChipSet.h"

#include "SetTest.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iomanip>
#include <random>
#include <ranges>
#include <set>
#include <sstream>
#include <type_traits>
#include <unordered_set>

namespace {

using Mox::ChipId;
using Mox::ChipSet;
using Vel::AttributeOp;
using Vel::U32;
using Vel::U64;
using Vel::U8;

constexpr char outOfRange[] = "Mox::ChipId::value < Mox::ChipId::min or > Mox::ChipId::null not allowed";

// The message of the RangeException that f throws.
template <class F> std::string rangeError(F f) {
    try {
        f();
    } catch (Vel::RangeException const& error) {
        return error.what();
    }
    return "nothing was thrown";
}

// --- chip ids ---

TEST(ChipIdTest, ConstantsAreTheseNumbers) {
    static_assert(ChipId::min() == 0 && ChipId::max() == 126 && ChipId::allChips() == 127 && ChipId::null() == 128);
    EXPECT_EQ(sizeof(ChipId), 1u);
}

TEST(ChipIdTest, EveryNumberUpToNullIsTaken) {
    for (unsigned n = 0; n <= 128; ++n) EXPECT_EQ(ChipId(static_cast<U8>(n)).value(), n);
}

TEST(ChipIdTest, EveryNumberAboveNullIsRefused) {
    for (unsigned n = 129; n <= 255; ++n) EXPECT_EQ(rangeError([&] { ChipId(static_cast<U8>(n)); }), outOfRange) << n;
}

TEST(ChipIdTest, ConstructionFromANumberThatIsNoneStoresIt) {
    alignas(ChipId) unsigned char memory[sizeof(ChipId)] = {};
    EXPECT_EQ(rangeError([&] { new (memory) ChipId(200); }), outOfRange);
    EXPECT_EQ(memory[0], 200);
}

TEST(ChipIdTest, SettingStoresBeforeItChecks) {
    ChipId id = 3;
    EXPECT_EQ(rangeError([&] { id.valueIs(200); }), outOfRange);
    EXPECT_EQ(id.value(), 200);
}

TEST(ChipIdTest, SettingTheValueThatItHasIsNotChecked) {
    ChipId id = 3;
    EXPECT_THROW(id.valueIs(200), Vel::RangeException);
    EXPECT_NO_THROW(id.valueIs(200));
    EXPECT_THROW(id.valueIs(201), Vel::RangeException);
    EXPECT_EQ(id.value(), 201);
    id.valueIs(128);
    EXPECT_EQ(id.value(), 128);
}

TEST(ChipIdTest, IncrementWrapsBeforeItIsChecked) {
    ChipId id = 100;
    EXPECT_NO_THROW(id.valueInc(200));
    EXPECT_EQ(id.value(), 44);
    id.valueInc(84);
    EXPECT_EQ(id.value(), 128);
    EXPECT_EQ(rangeError([&] { id.valueInc(1); }), outOfRange);
    EXPECT_EQ(id.value(), 129);
    EXPECT_NO_THROW(id.valueInc(0));
    EXPECT_EQ(id.value(), 129);
}

template <class T>
concept SetsATemporary = requires(T value) {
    std::move(value).valueIs(1);
};
template <class T>
concept IncrementsATemporary = requires(T value) {
    std::move(value).valueInc(1);
};

TEST(ChipIdTest, TemporariesAreNotModified) {
    EXPECT_FALSE(SetsATemporary<ChipId>);
    EXPECT_FALSE(IncrementsATemporary<ChipId>);
}

TEST(ChipIdTest, OrderIsOfTheNumbers) {
    EXPECT_TRUE(ChipId(5) < ChipId(6));
    EXPECT_FALSE(ChipId(6) < ChipId(5));
    EXPECT_FALSE(ChipId(5) < ChipId(5));
    EXPECT_TRUE(ChipId(126) < ChipId(128));
    EXPECT_TRUE(ChipId(5) == ChipId(5));
    EXPECT_FALSE(ChipId(5) == ChipId(6));
}

TEST(ChipIdTest, HashIsTheNumberWhateverTheSeed) {
    for (U8 const n : {U8(0), U8(1), U8(127), U8(128)}) {
        EXPECT_EQ(ChipId(n).hash(), n);
        EXPECT_EQ(ChipId(n).hash(99), n);
        EXPECT_EQ(std::hash<ChipId>()(ChipId(n)), n);
        ChipId const id = n;
        EXPECT_EQ(Vel::typeOf<ChipId>().glue().genericIfHash(&id, Vel::typeOf<ChipId>()), n);
    }
}

TEST(ChipIdTest, TextIsTheNumberAlone) {
    EXPECT_EQ(Mox::valueToStrep(ChipId(0)), "0");
    EXPECT_EQ(Mox::valueToStrep(ChipId(128)), "128");
    EXPECT_EQ(Vel::strepToValue<ChipId>("126", nullptr), ChipId(126));
    std::ostringstream out;
    out << ChipId(65) << std::hex << std::setw(4) << ChipId(65);
    EXPECT_EQ(out.str(), "65  41");
}

TEST(ChipIdTest, TextsOfNumbersAboveNullAreRefused) {
    EXPECT_EQ(rangeError([] { Vel::strepToValue<ChipId>("129", nullptr); }), outOfRange);
    EXPECT_EQ(rangeError([] { Vel::strepToValue<ChipId>("255", nullptr); }), outOfRange);
    EXPECT_EQ(parseError<ChipId>("256"), "attribute \"value\": expected a number from 0 to 255 at offset 0, at '256'");
    EXPECT_EQ(parseError<ChipId>("x"), "attribute \"value\": expected a number from 0 to 255 at offset 0, at 'x'");
    EXPECT_EQ(parseError<ChipId>("7x"), "expected the end of the text at offset 1, at 'x'");
}

TEST(ChipIdTest, ParsingStoresBeforeItChecks) {
    Vel::String const text = "200,";
    auto it = text.begin();
    alignas(ChipId) unsigned char memory[sizeof(ChipId)] = {};
    EXPECT_EQ(rangeError([&] { new (memory) ChipId(it, text.end()); }), outOfRange);
    EXPECT_EQ(memory[0], 200);
    EXPECT_EQ(it - text.begin(), 3);
}

TEST(ChipIdTest, ATextThatDoesNotParseLeavesTheTargetAlone) {
    ChipId id = 5;
    auto const type = Vel::typeOf<ChipId>();
    EXPECT_EQ(rangeError([&] { type.glue().genericIfStrepToValue(&id, "200", type); }), outOfRange);
    EXPECT_EQ(id, ChipId(5));
}

TEST(ChipIdTest, BytesAreOneByteOfAnyValue) {
    EXPECT_EQ(writtenHex(ChipId(126)), "7e");
    auto const bytes = bytesOf("80c8ff");
    Vel::NboAttrLog::In in(bytes);
    EXPECT_EQ(ChipId(&in, Vel::StreamBogon()).value(), 128);
    EXPECT_EQ(ChipId(&in, Vel::StreamBogon()).value(), 200);
    EXPECT_EQ(ChipId(&in, Vel::StreamBogon()).value(), 255);
    EXPECT_THROW(ChipId(&in, Vel::StreamBogon()), Vel::StreamException);
    EXPECT_EQ(Mox::attrLogSize(static_cast<ChipId*>(nullptr)), 1u);
}

TEST(ChipIdTest, AttributesAreListed) {
    EXPECT_EQ(spelledAttributes<ChipId>(),
        (std::vector<std::string>{"2 value field ops 0 1 type U8", "3 min constant ops 0 type U8",
            "4 max constant ops 0 type U8", "5 allChips constant ops 0 type U8", "6 null constant ops 0 type U8",
            "7 hash derived ops 0 1 type U8"}));
    EXPECT_EQ(valueOps<ChipId>(), (std::vector<U32>{11, 12, 13}));
    EXPECT_EQ(Vel::typeOf<ChipId>().strepTemplate(), "%u");
    EXPECT_EQ(Vel::typeOf<ChipId>().encodedSize(), 1u);
    EXPECT_TRUE(Vel::typeOf<ChipId>().isHashable());
}

TEST(ChipIdTest, ConstantsAndTheHashAreReadByReflection) {
    ChipId id = 9;
    for (auto const& [attribute, expected] : {std::pair(2u, 9), std::pair(3u, 0), std::pair(4u, 126),
             std::pair(5u, 127), std::pair(6u, 128), std::pair(7u, 9)}) {
        U8 result = 77;
        EXPECT_EQ(attributeOp(id, attribute, AttributeOp::get, &result), 0) << attribute;
        EXPECT_EQ(result, expected) << attribute;
    }
}

TEST(ChipIdTest, ReflectiveSetsStoreBeforeTheyCheck) {
    for (Vel::AttributeId const attribute : {2u, 7u}) {
        ChipId id = 9;
        U8 value = 126;
        EXPECT_EQ(attributeOp(id, attribute, AttributeOp::set, nullptr, &value), 0);
        EXPECT_EQ(id.value(), 126);
        value = 200;
        EXPECT_EQ(rangeError([&] { attributeOp(id, attribute, AttributeOp::set, nullptr, &value); }), outOfRange);
        EXPECT_EQ(id.value(), 200) << attribute;
        EXPECT_NO_THROW(attributeOp(id, attribute, AttributeOp::set, nullptr, &value));
    }
}

TEST(ChipIdTest, OtherOperationsAreRefused) {
    ChipId id = 9;
    U8 argument = 1;
    for (U32 op = 0; op < 40; ++op) {
        for (Vel::AttributeId const attribute : {2u, 7u}) {
            if (op > 1) {
                EXPECT_EQ(attributeOp(id, attribute, AttributeOp(op), nullptr, &argument), 1);
            }
        }
        for (Vel::AttributeId const attribute : {3u, 4u, 5u, 6u}) {
            if (op > 0) {
                EXPECT_EQ(attributeOp(id, attribute, AttributeOp(op), nullptr, &argument), 1);
            }
        }
        for (Vel::AttributeId const attribute : {0u, 1u, 8u, 9u})
            EXPECT_EQ(attributeOp(id, attribute, AttributeOp(op), nullptr, &argument), 2);
        if (op < 11 || op > 13) {
            EXPECT_EQ(valueOp(id, AttributeOp(op), nullptr, &id), 1);
        }
    }
    EXPECT_EQ(id.value(), 9);
}

TEST(ChipIdTest, TruthIsBeingOtherThanNull) {
    for (auto const& [value, expected] : {std::pair(0, true), std::pair(127, true), std::pair(128, false)}) {
        ChipId id = static_cast<U8>(value);
        bool result = !expected;
        EXPECT_EQ(valueOp(id, AttributeOp::truth, &result), 0);
        EXPECT_EQ(result, expected) << value;
    }
    auto const bytes = bytesOf("c8");
    Vel::NboAttrLog::In in(bytes);
    ChipId beyond(&in, Vel::StreamBogon());
    bool result = false;
    EXPECT_EQ(valueOp(beyond, AttributeOp::truth, &result), 0);
    EXPECT_TRUE(result);
}

TEST(ChipIdTest, ReflectiveConstructionStoresBeforeItChecks) {
    auto const& glue = Vel::typeOf<ChipId>().glue();
    alignas(ChipId) unsigned char memory[sizeof(ChipId)] = {77};
    glue.genericIfConstruct(memory, nullptr);
    EXPECT_EQ(memory[0], 0);
    U8 value = 126;
    void const* const arguments[] = {&value};
    glue.genericIfConstructFromCtorArgs(memory, arguments);
    EXPECT_EQ(memory[0], 126);
    value = 200;
    EXPECT_EQ(rangeError([&] { glue.genericIfConstructFromCtorArgs(memory, arguments); }), outOfRange);
    EXPECT_EQ(memory[0], 200);
}

// --- sets: membership ---

constexpr ChipSet setOf(std::initializer_list<U8> chips) {
    ChipSet set;
    for (U8 const chip : chips) set.chipIdIs(chip, true);
    return set;
}
std::vector<unsigned> chipsOf(ChipSet const& set) {
    std::vector<unsigned> chips;
    for (ChipId const id : set) chips.push_back(id.value());
    return chips;
}

TEST(ChipSetTest, EmptySetHasNoFirstChip) {
    ChipSet const set;
    EXPECT_EQ(set.firstChipId().value(), 128);
    EXPECT_EQ(set.chipIds(), 0u);
    EXPECT_EQ(set, ChipSet::noChips());
    EXPECT_EQ(set.valueLo(), 0u);
    EXPECT_EQ(set.valueHi(), 0u);
    EXPECT_TRUE(set.begin() == set.end());
}

TEST(ChipSetTest, EveryChipHasItsBit) {
    for (unsigned chip = 0; chip < 128; ++chip) {
        ChipSet const set = ChipSet::oneChip(static_cast<U8>(chip));
        EXPECT_EQ(set.valueLo(), chip < 64 ? U64(1) << chip : 0) << chip;
        EXPECT_EQ(set.valueHi(), chip < 64 ? 0 : U64(1) << (chip - 64)) << chip;
        EXPECT_EQ(chipsOf(set), std::vector<unsigned>{chip});
        for (unsigned other = 0; other < 128; ++other)
            ASSERT_EQ(set.chipId(static_cast<U8>(other)), other == chip) << chip << " " << other;
    }
}

TEST(ChipSetTest, AllChipsIsOnlyAMember) {
    ChipSet set;
    set.chipIdIs(ChipId::allChips(), true);
    EXPECT_EQ(set.valueHi(), U64(1) << 63);
    EXPECT_EQ(set.valueLo(), 0u);
    EXPECT_EQ(set.chipIds(), 1u);
}

TEST(ChipSetTest, ClearingLeavesTheOthers) {
    ChipSet set(allOnes, allOnes);
    set.chipIdIs(5, false);
    set.chipIdIs(127, false);
    EXPECT_EQ(set, ChipSet(~(U64(1) << 5), ~(U64(1) << 63)));
    set.chipIdIs(5, true);
    set.chipIdIs(5, true);
    EXPECT_EQ(set, ChipSet(allOnes, ~(U64(1) << 63)));
}

TEST(ChipSetTest, RemovalTellsWhatWas) {
    ChipSet set = setOf({4, 70});
    EXPECT_FALSE(set.chipIdDel(5));
    EXPECT_EQ(set, setOf({4, 70}));
    EXPECT_TRUE(set.chipIdDel(70));
    EXPECT_EQ(set, setOf({4}));
    EXPECT_FALSE(set.chipIdDel(70));
}

TEST(ChipSetTest, NullAnswersForChip64) {
    EXPECT_TRUE(setOf({64}).chipId(ChipId::null()));
    EXPECT_FALSE(ChipSet(allOnes, ~U64(1)).chipId(ChipId::null()));
}

constexpr char noChip[] = "chipId.value() <= ChipId::max() || chipId.value() == ChipId::allChips()";
auto noChipFailure() {
    return failure("", noChip, "/src/Mox/ChipSet", 51, "void Mox::ChipSet::chipIdIs(Mox::ChipId, bool) &");
}
ChipId idBeyond() {  // a number that only reading lets in
    static auto const bytes = bytesOf("c8");
    Vel::NboAttrLog::In in(bytes);
    return ChipId(&in, Vel::StreamBogon());
}

TEST(ChipSetDeathTest, NullIsNoMember) {
    ChipSet set;
    EXPECT_ABORT(set.chipIdIs(ChipId::null(), true), noChipFailure());
    EXPECT_ABORT(set.chipIdIs(ChipId::null(), false), noChipFailure());
    EXPECT_ABORT(set.chipIdDel(ChipId::null()), noChipFailure());
    EXPECT_ABORT(ChipSet::oneChip(ChipId::null()), noChipFailure());
    EXPECT_ABORT(set.chipIdIs(idBeyond(), true), noChipFailure());
}

TEST(ChipSetDeathTest, NullIsNoMemberByReflectionEither) {
    ChipSet set;
    ChipId const null = ChipId::null();
    bool const on = true;
    EXPECT_ABORT(keyedOp(set, 5, AttributeOp::set, nullptr, &null, &on), noChipFailure());
    EXPECT_ABORT(keyedOp(set, 5, AttributeOp::del, nullptr, &null), noChipFailure());
    EXPECT_ABORT(call(set, 2, nullptr, null), noChipFailure());
}

// --- sets: the next member ---

TEST(ChipSetTest, NextChipCrossesTheWords) {
    ChipSet const set = setOf({0, 63, 64, 127});
    EXPECT_EQ(chipsOf(set), (std::vector<unsigned>{0, 63, 64, 127}));
    EXPECT_EQ(set.firstChipId().value(), 0);
    EXPECT_EQ(set.nextChipId(0).value(), 63);
    EXPECT_EQ(set.nextChipId(62).value(), 63);
    EXPECT_EQ(set.nextChipId(63).value(), 64);
    EXPECT_EQ(set.nextChipId(64).value(), 127);
    EXPECT_EQ(set.nextChipId(126).value(), 127);
    EXPECT_EQ(set.nextChipId(127).value(), 128);
    EXPECT_EQ(set.nextChipId(ChipId::null()).value(), 0);
    EXPECT_EQ(setOf({64}).nextChipId(ChipId::null()).value(), 64);
}

TEST(ChipSetTest, WalksAndCountsAgreeWithAStandardSet) {
    std::mt19937_64 random(42);
    for (unsigned round = 0; round < 200; ++round) {
        std::set<unsigned> model;
        ChipSet set;
        for (unsigned i = 0; i < round; ++i) {
            auto const chip = static_cast<U8>(random() % 128);
            bool const on = random() % 4 != 0;
            ASSERT_EQ(set.chipId(chip), model.contains(chip));
            set.chipIdIs(chip, on);
            if (on)
                model.insert(chip);
            else
                model.erase(chip);
        }
        ASSERT_EQ(chipsOf(set), std::vector<unsigned>(model.begin(), model.end()));
        ASSERT_EQ(set.chipIds(), model.size());
        for (unsigned from = 0; from < 128; ++from) {
            auto const next = model.upper_bound(from);
            ASSERT_EQ(set.nextChipId(static_cast<U8>(from)).value(), next == model.end() ? 128 : *next) << from;
        }
    }
}

// --- sets: words, union, comparison, hash ---

TEST(ChipSetTest, WordsTakeBitOperations) {
    ChipSet set(12, 10);
    set.valueLoAnd(6);
    EXPECT_EQ(set, ChipSet(4, 10));
    set.valueLoOr(3);
    EXPECT_EQ(set, ChipSet(7, 10));
    set.valueLoXor(5);
    EXPECT_EQ(set, ChipSet(2, 10));
    set.valueHiAnd(6);
    EXPECT_EQ(set, ChipSet(2, 2));
    set.valueHiOr(5);
    EXPECT_EQ(set, ChipSet(2, 7));
    set.valueHiXor(6);
    EXPECT_EQ(set, ChipSet(2, 1));
    set.valueLoIs(8);
    set.valueHiIs(9);
    EXPECT_EQ(set, ChipSet(8, 9));
}

TEST(ChipSetTest, ConcatIsTheUnion) {
    EXPECT_EQ(ChipSet(3, 8).concat(ChipSet(6, 1)), ChipSet(7, 9));
    EXPECT_EQ(setOf({1, 127}).concat(ChipSet()), setOf({1, 127}));
}

TEST(ChipSetTest, OrderIsByTheHighWordFirst) {
    EXPECT_TRUE(ChipSet(allOnes, 0) < ChipSet(0, 1));
    EXPECT_FALSE(ChipSet(0, 1) < ChipSet(allOnes, 0));
    EXPECT_TRUE(ChipSet(1, 1) < ChipSet(2, 1));
    EXPECT_FALSE(ChipSet(2, 1) < ChipSet(2, 1));
    EXPECT_TRUE(ChipSet(0, 1) < ChipSet(0, U64(1) << 63));
    EXPECT_TRUE(ChipSet(1, 0) < ChipSet(U64(1) << 63, 0));
    EXPECT_FALSE(ChipSet(1, 2) == ChipSet(1, 3));
    EXPECT_FALSE(ChipSet(1, 2) == ChipSet(0, 2));
}

TEST(ChipSetTest, HashMixesBothWords) {
    EXPECT_EQ(ChipSet().hash(0), 45516455u);
    EXPECT_EQ(ChipSet(2, 2).hash(0), 3000830399u);
    EXPECT_EQ(ChipSet(2, 2).hash(7), 388658180u);
    EXPECT_EQ(ChipSet(5, 6).hash(3), Vel::Hash(3).hashMix<8>(5).hashMix<8>(6).result());
    ChipSet const set(2, 2);
    EXPECT_EQ(Vel::typeOf<ChipSet>().glue().genericIfHash(&set, Vel::typeOf<ChipSet>()), 3000830399u);
    EXPECT_EQ(std::unordered_set<ChipSet>({set, set, ChipSet()}).size(), 2u);
}

// --- sets: text and bytes ---

TEST(ChipSetTest, TextNamesBothWords) {
    char const* const text = "Value('Mox::ChipSet', ** {'valueLo': 2, 'valueHi': 2})";
    EXPECT_EQ(Mox::valueToStrep(setOf({1, 65})), text);
    std::ostringstream out;
    out << setOf({1, 65});
    EXPECT_EQ(out.str(), text);
    EXPECT_EQ(Vel::strepToValue<ChipSet>(text, nullptr), setOf({1, 65}));
    EXPECT_EQ(Mox::valueToStrep(ChipSet(allOnes, U64(1) << 63)),
        "Value('Mox::ChipSet', ** {'valueLo': 18446744073709551615, 'valueHi': 9223372036854775808})");
}

TEST(ChipSetTest, BadTextsAreRefused) {
    for (auto const& text : {"", "Value('Mox::ChipSet', ** {'valueLo': 2, 'valueHi': 2}) ",
             "Value('Mox::ChipSet', ** { 'valueLo': 2, 'valueHi': 2})",
             "Value('Mox::ChipSet', ** {'valueHi': 2, 'valueLo': 2})", "Value('Mox::ChipSet', ** {'valueLo': 2})",
             "Value('Mox::ChipSet', ** {'valueLo': 2, 'valueHi': 2}", "Value('Mox::Chips', ** {'valueLo': 2, ",
             "Value('Mox::ChipSet', ** {'valueLo': -2, 'valueHi': 2})"})
        EXPECT_THROW(Vel::strepToValue<ChipSet>(text, nullptr), Vel::ParseException) << text;
    EXPECT_EQ(parseError<ChipSet>("Value('Mox::ChipSet', ** {'valueLo': 2, 'valueHi': x})"),
        "attribute \"valueHi\": expected a number from 0 to 18446744073709551615 at offset 51, at 'x})'");
}

TEST(ChipSetTest, BytesAreTheLowWordFirst) {
    EXPECT_EQ(writtenHex(ChipSet(0x0102030405060708, 0x1112131415161718)), "01020304050607081112131415161718");
    auto const bytes = bytesOf("01020304050607081112131415161718");
    Vel::NboAttrLog::In in(bytes);
    EXPECT_EQ(ChipSet(&in, Vel::StreamBogon()), ChipSet(0x0102030405060708, 0x1112131415161718));
    for (std::size_t size = 0; size < 16; ++size)
        EXPECT_FALSE(Vel::checkedRead<ChipSet>(std::span(bytes).first(size))) << size;
}

// --- sets: reflection ---

TEST(ChipSetReflectionTest, AttributesAreListed) {
    EXPECT_EQ(spelledAttributes<ChipSet>(),
        (std::vector<std::string>{"2 oneChip method ops 10 result Mox::ChipSet (chipId Mox::ChipId)",
            "3 noChips method ops 10 result Mox::ChipSet", "4 chipIds method ops 10 result U32",
            "5 chipId collection ops 0 1 2 type bool key Mox::ChipId", "6 firstChipId method ops 10 result Mox::ChipId",
            "7 nextChipId method ops 10 result Mox::ChipId (chipId Mox::ChipId)",
            "8 concat method ops 10 result Mox::ChipSet (chipSet Mox::ChipSet)", "9 valueLo field ops 0 1 type U64",
            "10 valueHi field ops 0 1 type U64"}));
    EXPECT_EQ(valueOps<ChipSet>(), (std::vector<U32>{11, 12, 13}));
    EXPECT_EQ(Vel::typeOf<ChipSet>().strepTemplate(), "Value('Mox::ChipSet', ** {'valueLo': %lu, 'valueHi': %lu})");
    EXPECT_EQ(Vel::typeOf<ChipSet>().encodedSize(), 16u);
    EXPECT_TRUE(Vel::typeOf<ChipSet>().isHashable());
    EXPECT_EQ(Vel::typeOf<ChipSet>().moduleName(), "ChipSet");
}

TEST(ChipSetReflectionTest, FunctionsAreCalled) {
    ChipSet set = setOf({1, 65});
    ChipSet result(9, 9);
    EXPECT_EQ(call(set, 2, &result, ChipId(64)), 0);
    EXPECT_EQ(result, setOf({64}));
    EXPECT_EQ(call(set, 3, &result), 0);
    EXPECT_EQ(result, ChipSet());
    U32 count = 0;
    EXPECT_EQ(call(set, 4, &count), 0);
    EXPECT_EQ(count, 2u);
    ChipId id;
    EXPECT_EQ(call(set, 6, &id), 0);
    EXPECT_EQ(id, ChipId(1));
    EXPECT_EQ(call(set, 7, &id, ChipId(1)), 0);
    EXPECT_EQ(id, ChipId(65));
    EXPECT_EQ(call(set, 8, &result, setOf({2, 65})), 0);
    EXPECT_EQ(result, setOf({1, 2, 65}));
    EXPECT_EQ(set, setOf({1, 65}));
}

TEST(ChipSetReflectionTest, MembersAreACollection) {
    ChipSet set = setOf({1, 65});
    ChipId const key = 65;
    bool result = false;
    EXPECT_EQ(keyedOp(set, 5, AttributeOp::get, &result, &key), 0);
    EXPECT_TRUE(result);
    EXPECT_EQ(keyedOp(set, 5, AttributeOp::del, &result, &key), 0);
    EXPECT_TRUE(result);
    EXPECT_EQ(set, setOf({1}));
    EXPECT_EQ(keyedOp(set, 5, AttributeOp::del, &result, &key), 0);
    EXPECT_FALSE(result);
    bool const on = true;
    EXPECT_EQ(keyedOp(set, 5, AttributeOp::set, nullptr, &key, &on), 0);
    EXPECT_EQ(set, setOf({1, 65}));
    bool const off = false;
    EXPECT_EQ(keyedOp(set, 5, AttributeOp::set, nullptr, &key, &off), 0);
    EXPECT_EQ(set, setOf({1}));
}

TEST(ChipSetReflectionTest, WordsAreReadAndWrittenUnchecked) {
    ChipSet set(1, 2);
    U64 word = 0;
    EXPECT_EQ(attributeOp(set, 9, AttributeOp::get, &word), 0);
    EXPECT_EQ(word, 1u);
    EXPECT_EQ(attributeOp(set, 10, AttributeOp::get, &word), 0);
    EXPECT_EQ(word, 2u);
    EXPECT_EQ(attributeOp(set, 9, AttributeOp::set, nullptr, &allOnes), 0);
    EXPECT_EQ(set, ChipSet(allOnes, 2));
    EXPECT_EQ(attributeOp(set, 10, AttributeOp::set, nullptr, &allOnes), 0);
    EXPECT_EQ(set, ChipSet(allOnes, allOnes));
}

TEST(ChipSetReflectionTest, OtherOperationsAreRefused) {
    std::map<Vel::AttributeId, std::set<U32>> const answered{
        {2, {10}}, {3, {10}}, {4, {10}}, {5, {0, 1, 2}}, {6, {10}}, {7, {10}}, {8, {10}}, {9, {0, 1}}, {10, {0, 1}}};
    ChipSet set = setOf({1});
    for (U32 op = 0; op < 40; ++op) {
        for (auto const& [id, ops] : answered)
            if (!ops.contains(op)) {
                EXPECT_EQ(attributeOp(set, id, AttributeOp(op)), 1) << id << " " << op;
            }
        for (Vel::AttributeId const id : {0u, 1u, 11u, 12u})
            EXPECT_EQ(attributeOp(set, id, AttributeOp(op)), 2) << id << " " << op;
        if (op < 11 || op > 13) {
            EXPECT_EQ(valueOp(set, AttributeOp(op), nullptr, &set), 1) << op;
        }
    }
    EXPECT_EQ(set, setOf({1}));
}

TEST(ChipSetReflectionTest, TruthIsHavingAMember) {
    for (auto const& [set, expected] :
        {std::pair(ChipSet(), false), std::pair(ChipSet(1, 0), true), std::pair(ChipSet(0, 1), true)}) {
        ChipSet value = set;
        bool result = !expected;
        EXPECT_EQ(valueOp(value, AttributeOp::truth, &result), 0);
        EXPECT_EQ(result, expected);
    }
}

TEST(ChipSetReflectionTest, EqualAndLessAreOffered) {
    ChipSet a(allOnes, 0);
    ChipSet const b(0, 1);
    bool result = true;
    EXPECT_EQ(valueOp(a, AttributeOp::equal, &result, &b), 0);
    EXPECT_FALSE(result);
    EXPECT_EQ(valueOp(a, AttributeOp::less, &result, &b), 0);
    EXPECT_TRUE(result);
    EXPECT_EQ(valueOp(a, AttributeOp::less, &result, &a), 0);
    EXPECT_FALSE(result);
}

TEST(ChipSetReflectionTest, IsConstructedAndCopied) {
    auto const& glue = Vel::typeOf<ChipSet>().glue();
    ChipSet const source(1, 2);
    ChipSet set(9, 9);
    glue.genericIfConstruct(&set, nullptr);
    EXPECT_EQ(set, ChipSet());
    glue.genericIfConstruct(&set, &source);
    EXPECT_EQ(set, source);
    glue.genericIfConstructFromCtorArgs(&set, nullptr);
    EXPECT_EQ(set, ChipSet());
}

// --- compile time and ranges ---

static_assert(std::ranges::forward_range<ChipSet>);
static_assert(std::ranges::forward_range<ChipSet const>);
static_assert(std::is_trivially_copyable_v<ChipSet> && sizeof(ChipSet) == 16);
static_assert(setOf({0, 63, 64, 127}).chipIds() == 4);
static_assert(setOf({0, 63}).nextChipId(0) == ChipId(63));
static_assert(setOf({5}).concat(ChipSet::oneChip(6)) == setOf({5, 6}));
static_assert(setOf({5}) < setOf({64}));
static_assert(ChipSet::noChips().firstChipId() == ChipId(ChipId::null()));
static_assert(ChipSet(2, 2).hash(0) == 3000830399u);
static_assert([] {
    unsigned sum = 0;
    for (ChipId const id : setOf({1, 2, 100})) sum += id.value();
    return sum;
}() == 103);
static_assert([] {
    ChipSet set = setOf({7, 8});
    return set.chipIdDel(7) && !set.chipIdDel(7) && set == setOf({8});
}());

TEST(ChipSetTest, IteratorsCanBeKeptAndCompared) {
    ChipSet const set = setOf({3, 70});
    auto const first = set.begin();
    auto second = first;
    EXPECT_EQ(*second++, ChipId(3));
    EXPECT_EQ(*second, ChipId(70));
    EXPECT_EQ(*first, ChipId(3));
    EXPECT_TRUE(first == set.begin());
    EXPECT_FALSE(first == second);
    EXPECT_TRUE(++second == set.end());
    EXPECT_EQ(std::ranges::count_if(set, [](ChipId id) { return id.value() > 64; }), 1);
}

}  // namespace
