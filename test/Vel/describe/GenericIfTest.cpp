#include "Vel/describe/GenericIf.h"

#include "Fixtures.h"
#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/describe/internal/Records.h"
#include "Vel/entity/Dir.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace {

using namespace Fixture;
using Vel::GenericIfImpl;
using Vel::GenericValue;
using Vel::typeOf;
using Vel::VelAttr;
using Vel::VelType;

template <class T> VelAttr attr(std::string_view name) { return typeOf<T>().attribute(name).value(); }

template <class T>
int operate(T& object, VelAttr a, AttributeOp op, void* result = nullptr, void const* other = nullptr,
    void const* arg = nullptr) {
    return typeOf<T>().glue().genericIfAttributeOp(result, &object, a, op, other, arg);
}
template <class T, class V> int set(T& object, std::string_view name, V const& value) {
    return operate(object, attr<T>(name), AttributeOp::set, nullptr, nullptr, &value);
}
// The attribute's value; fails the test unless it can be read.
template <class V, class T> V get(T& object, std::string_view name) {
    V value{};
    EXPECT_EQ(operate(object, attr<T>(name), AttributeOp::get, &value), 0) << name;
    return value;
}
template <class T> bool truth(T value) {
    bool result = false;
    EXPECT_EQ(operate(value, VelAttr(), AttributeOp::truth, &result), 0);
    return result;
}
template <class T> bool equal(T a, T const& b) {
    bool result = false;
    EXPECT_EQ(operate(a, VelAttr(), AttributeOp::equal, &result, &b), 0);
    return result;
}
template <class T> bool less(T a, T const& b) {
    bool result = false;
    EXPECT_EQ(operate(a, VelAttr(), AttributeOp::less, &result, &b), 0);
    return result;
}

// --- result codes ---

// For every attribute and operation: 1 when the record does not list the operation. Nothing throws, nothing changes.
template <class T> void expectUnlistedRefused() {
    VelType const type = typeOf<T>();
    T object;
    String const before = type.glue().genericIfStrRep(&object, type);
    for (U32 op = 0; op < 70; ++op) {
        auto const code = static_cast<AttributeOp>(op);
        for (U32 i = 0; i < type.attributeCount(); ++i) {
            if (!type.attribute(i).answers(code)) {
                EXPECT_EQ(operate(object, type.attribute(i), code), 1) << type.attribute(i).name() << " " << op;
            }
        }
        EXPECT_EQ(operate(object, VelAttr(type, type.attributeCount()), code), 2) << op;
        EXPECT_EQ(operate(object, VelAttr(type, 0xFFFFFFFF), code), 2) << op;
        EXPECT_EQ(operate(object, typeOf<Leaf>().attribute(0), code), 2) << op;
        if (!type.answers(code)) {
            EXPECT_EQ(operate(object, VelAttr(), code), 1) << op;
        }
    }
    for (U32 const op : {0x80000000u, 0xFFFFFFFFu})
        EXPECT_EQ(operate(object, VelAttr(), static_cast<AttributeOp>(op)), 1);
    EXPECT_EQ(type.glue().genericIfStrRep(&object, type), before);
}

TEST(GenericIfTest, OperationsThatARecordDoesNotListAreRefusedByCode) {
    expectUnlistedRefused<Chip>();
    expectUnlistedRefused<ChipBits>();
    expectUnlistedRefused<Words>();
    expectUnlistedRefused<Sample>();
    expectUnlistedRefused<Tally>();
    expectUnlistedRefused<MaybeText>();
    expectUnlistedRefused<MaybeNumber>();
    expectUnlistedRefused<Stamp>();
    expectUnlistedRefused<Moment>();
    expectUnlistedRefused<Version>();
    expectUnlistedRefused<Everything>();
}

TEST(GenericIfTest, ScalarsHaveNoAttributes) {
    U32 number = 7;
    for (U32 op = 0; op < 40; ++op) {
        auto const code = static_cast<AttributeOp>(op);
        EXPECT_EQ(operate(number, VelAttr(typeOf<U32>(), 0), code), 2);
        if (op < 11 || op > 13) {
            EXPECT_EQ(operate(number, VelAttr(), code), 1);
        }
    }
}

TEST(GenericIfTest, NobodyNeedsToWantAResult) {
    Chip chip(5);
    Chip const other(6);
    EXPECT_EQ(operate(chip, attr<Chip>("value"), AttributeOp::get), 0);
    EXPECT_EQ(operate(chip, attr<Chip>("max"), AttributeOp::get), 0);
    EXPECT_EQ(operate(chip, VelAttr(), AttributeOp::truth), 0);
    EXPECT_EQ(operate(chip, VelAttr(), AttributeOp::less, nullptr, &other), 0);
    ChipBits bits;
    EXPECT_EQ(operate(bits, attr<ChipBits>("chips"), AttributeOp::call), 0);
    EXPECT_EQ(operate(bits, attr<ChipBits>("chip"), AttributeOp::del, nullptr, &other), 0);
}

// --- attributes ---

TEST(GenericIfTest, FieldsAreReadAndWritten) {
    Tally tally;
    EXPECT_EQ(set(tally, "current", U1(true)), 0);
    EXPECT_EQ(set(tally, "changes", U32(7)), 0);
    EXPECT_EQ(set(tally, "last", Seconds(1.5)), 0);
    EXPECT_EQ(tally, Tally(true, 7, 1.5));
    EXPECT_EQ(get<U1>(tally, "current"), true);
    EXPECT_EQ(get<U32>(tally, "changes"), 7u);
    EXPECT_EQ(get<Seconds>(tally, "last"), Seconds(1.5));
}

TEST(GenericIfTest, ReadOnlyFieldsAreNotWritten) {
    MaybeText text("a", true);
    EXPECT_EQ(set(text, "value", String("b")), 1);
    EXPECT_EQ(set(text, "isSet", false), 1);
    EXPECT_EQ(text, MaybeText("a", true));
    EXPECT_EQ(get<String>(text, "value"), "a");
}

TEST(GenericIfTest, ConstantsAreRead) {
    Chip chip;
    EXPECT_EQ(get<U8>(chip, "min"), 0);
    EXPECT_EQ(get<U8>(chip, "max"), 126);
    EXPECT_EQ(get<U8>(chip, "allChips"), 127);
    EXPECT_EQ(get<U8>(chip, "null"), 128);
    MaybeNumber number;
    EXPECT_EQ(get<String>(number, "defaultReprAttribute"), "stringValue");
    EXPECT_EQ(get<U64>(number, "nullBit"), 0x8000000000000000ul);
    Version version(3, true);
    EXPECT_EQ(get<Version>(version, "null"), Version());
}

TEST(GenericIfTest, CheckedSetterStoresAndThenThrows) {
    Chip chip(5);
    EXPECT_THROW(set(chip, "value", U8(200)), Vel::RangeException);
    EXPECT_EQ(chip.value(), 200);
    EXPECT_EQ(set(chip, "value", U8(200)), 0);  // it has this value already
    EXPECT_EQ(set(chip, "hash", U8(9)), 0);
    EXPECT_EQ(get<U8>(chip, "hash"), 9);
}

TEST(GenericIfTest, DerivedAttributesAreComputedAndSet) {
    MaybeNumber number(5);
    EXPECT_EQ(get<String>(number, "stringValue"), "5");
    EXPECT_EQ(set(number, "null", true), 0);
    EXPECT_TRUE(get<bool>(number, "null"));
    EXPECT_EQ(get<U64>(number, "value"), 0x8000000000000005ul);
    EXPECT_EQ(set(number, "stringValue", String("77")), 0);
    EXPECT_EQ(get<U64>(number, "value"), 77u);
    EXPECT_THROW(set(number, "stringValue", String("7x")), Vel::RangeException);
    EXPECT_EQ(get<U64>(number, "value"), 77u);
    Stamp stamp(1, 2, 3);
    EXPECT_EQ(get<U64>(stamp, "val"), 0x0000000100020003ul);
}

TEST(GenericIfTest, AttributesAreReachedByTheirNumber) {
    Tally tally(true, 7, 12.5);
    U32 changes = 0;
    EXPECT_EQ(typeOf<Tally>().attributeOp(&changes, &tally, 3, AttributeOp::get), 0);
    EXPECT_EQ(changes, 7u);
    U32 const more = 8;
    EXPECT_EQ(typeOf<Tally>().attributeOp(nullptr, &tally, 3, AttributeOp::set, nullptr, &more), 0);
    EXPECT_EQ(tally, Tally(true, 8, 12.5));
    EXPECT_EQ(typeOf<Tally>().attributeOp(&changes, &tally, 6, AttributeOp::get), 1);  // a method has no value
    EXPECT_EQ(typeOf<Tally>().attributeOp(&changes, &tally, 7, AttributeOp::get), 2);
    EXPECT_EQ(typeOf<Tally>().attributeOp(&changes, &tally, 0, AttributeOp::get), 2);
}

TEST(GenericIfTest, NumbersOfABasesAttributesReachThem) {
    auto const twig = Twig::newEntity("twig");
    twig->sizeIs(5);
    twig->presentIs(true);
    void* const object = static_cast<Vel::Entity*>(twig.get());
    U32 size = 0;
    EXPECT_EQ(typeOf<Twig>().attributeOp(&size, object, 258, AttributeOp::get), 0);
    EXPECT_EQ(size, 5u);
    bool present = false;
    EXPECT_EQ(typeOf<Twig>().attributeOp(&present, object, 263, AttributeOp::get), 0);
    EXPECT_TRUE(present);
    EXPECT_EQ(typeOf<Twig>().attributeOp(&present, object, 264, AttributeOp::get), 2);
}

TEST(GenericIfTest, SetterTakesAnotherType) {
    Tally tally(false, 1, 0.0);
    EXPECT_EQ(set(tally, "update", Sample(true, 2, 9.0)), 0);
    EXPECT_EQ(tally, Tally(true, 3, 9.0));
}

TEST(GenericIfTest, MethodTakesItsArgumentsInOrder) {
    Tally tally;
    bool const value = true;
    U32 const count = 4;
    Seconds const when = 2.5;
    void const* const arguments[] = {&value, &count, &when};
    EXPECT_EQ(operate(tally, attr<Tally>("doUpdate"), AttributeOp::call, nullptr, nullptr, arguments), 0);
    EXPECT_EQ(tally, Tally(true, 4, 2.5));
}

TEST(GenericIfTest, FunctionsYieldANewValueAndLeaveTheirObject) {
    MaybeText const before("old", true);
    MaybeText text = before;
    MaybeText result;
    String const argument("new");
    void const* const arguments[] = {&argument};
    EXPECT_EQ(operate(text, attr<MaybeText>("valueSet"), AttributeOp::call, &result, nullptr, arguments), 0);
    EXPECT_EQ(result, MaybeText("new", true));
    EXPECT_EQ(operate(text, attr<MaybeText>("valueInvalid"), AttributeOp::call, &result), 0);
    EXPECT_EQ(result, MaybeText());
    String shortText;
    EXPECT_EQ(operate(text, attr<MaybeText>("toStrep"), AttributeOp::call, &shortText), 0);
    EXPECT_EQ(shortText, "old");
    EXPECT_EQ(text, before);
}

TEST(GenericIfTest, MemberAndStaticFunctionsOfOneTypeAreTold) {
    ChipBits bits(1, 0);
    ChipBits const other(4, 8);
    ChipBits result;
    void const* arguments[] = {&other};
    EXPECT_EQ(operate(bits, attr<ChipBits>("concat"), AttributeOp::call, &result, nullptr, arguments), 0);
    EXPECT_EQ(result, ChipBits(5, 8));
    Chip const chip(65);
    arguments[0] = &chip;
    EXPECT_EQ(operate(bits, attr<ChipBits>("oneChip"), AttributeOp::call, &result, nullptr, arguments), 0);
    EXPECT_EQ(result, ChipBits(0, 2));
}

TEST(GenericIfTest, MethodWithoutParametersChangesItsObject) {
    Stamp stamp;
    EXPECT_EQ(operate(stamp, attr<Stamp>("doInit"), AttributeOp::call), 0);
    EXPECT_EQ(stamp, Stamp(1000, 0xFFFF, 0xFFFF));
}

TEST(GenericIfTest, CollectionOfFlagsIsReachedByKey) {
    ChipBits bits;
    Chip const chip(64);
    bool value = true;
    VelAttr const collection = attr<ChipBits>("chip");
    EXPECT_EQ(operate(bits, collection, AttributeOp::set, nullptr, &chip, &value), 0);
    EXPECT_EQ(bits, ChipBits(0, 1));
    value = false;
    EXPECT_EQ(operate(bits, collection, AttributeOp::get, &value, &chip), 0);
    EXPECT_TRUE(value);
    EXPECT_EQ(operate(bits, collection, AttributeOp::del, &value, &chip), 0);
    EXPECT_TRUE(value);
    EXPECT_EQ(operate(bits, collection, AttributeOp::del, &value, &chip), 0);
    EXPECT_FALSE(value);
    EXPECT_EQ(operate(bits, collection, AttributeOp::count, &value), 1);
    EXPECT_EQ(operate(bits, collection, AttributeOp::exists, &value, &chip), 1);
}

TEST(GenericIfTest, CollectionAnswersCountChangesAndExistence) {
    Words words;
    U8 const key = 3;
    U64 word = 11;
    U32 number = 0;
    bool exists = false;
    VelAttr const collection = attr<Words>("word");
    EXPECT_EQ(operate(words, collection, AttributeOp::exists, &exists, &key), 0);
    EXPECT_FALSE(exists);
    EXPECT_EQ(operate(words, collection, AttributeOp::set, nullptr, &key, &word), 0);
    EXPECT_EQ(operate(words, collection, AttributeOp::exists, &exists, &key), 0);
    EXPECT_TRUE(exists);
    EXPECT_EQ(operate(words, collection, AttributeOp::count, &number), 0);
    EXPECT_EQ(number, 1u);
    EXPECT_EQ(operate(words, collection, AttributeOp::changeCounter, &number), 0);
    EXPECT_EQ(number, 1u);
    EXPECT_EQ(operate(words, collection, AttributeOp::del, &word, &key), 0);
    EXPECT_EQ(word, 11u);
    EXPECT_EQ(operate(words, collection, AttributeOp::get, &word, &key), 0);
    EXPECT_EQ(word, 0u);
}

TEST(GenericIfTest, DeclaredAttributesAnswerNothing) {
    Words words(7, 0);
    for (char const* const name : {"initialId", "maxWords"})
        for (U32 op = 0; op < 22; ++op)
            EXPECT_EQ(operate(words, attr<Words>(name), static_cast<AttributeOp>(op)), 1) << name << op;
}

// --- truth, equality, order, arithmetic ---

TEST(GenericIfTest, RecordIsTrueUnlessEveryFieldIsZero) {
    EXPECT_FALSE(truth(Tally()));
    EXPECT_TRUE(truth(Tally(true, 0, 0.0)));
    EXPECT_TRUE(truth(Tally(false, 1, 0.0)));
    EXPECT_TRUE(truth(Tally(false, 0, 0.5)));
    EXPECT_FALSE(truth(Tally(false, 0, -0.0)));
    EXPECT_TRUE(truth(Tally(false, 0, std::nan(""))));
    EXPECT_FALSE(truth(MaybeText()));
    EXPECT_TRUE(truth(MaybeText("", true)));
    EXPECT_TRUE(truth(MaybeText("x", false)));
}

TEST(GenericIfTest, RecordOfValuesIsTrueUnlessEachIsItsDefault) {
    EXPECT_FALSE(truth(Everything()));
    Everything e;
    e.version = Version(0, true);
    EXPECT_TRUE(truth(e));
    e = Everything();
    e.maybe = MaybeText("a", false);
    EXPECT_TRUE(truth(e));
}

TEST(GenericIfTest, NumberIsTrueUnlessZero) {
    EXPECT_FALSE(truth(MaybeNumber()));
    EXPECT_TRUE(truth(MaybeNumber(MaybeNumber::nullBit())));
    EXPECT_FALSE(truth(U32(0)));
    EXPECT_TRUE(truth(F64(std::nan(""))));
    EXPECT_FALSE(truth(String()));
    EXPECT_FALSE(truth(U1()));
}

TEST(GenericIfTest, TruthCanBeTheTypesOwn) {
    EXPECT_TRUE(truth(Chip(0)));
    EXPECT_FALSE(truth(Chip(128)));
    EXPECT_FALSE(truth(Stamp()));
    EXPECT_TRUE(truth(Stamp(0, 0, 0)));
    EXPECT_FALSE(truth(Moment(0.0005, 3.0)));
}

TEST(GenericIfTest, EqualityComparesEveryField) {
    EXPECT_TRUE(equal(Tally(true, 1, 2.0), Tally(true, 1, 2.0)));
    EXPECT_FALSE(equal(Tally(true, 1, 2.0), Tally(false, 1, 2.0)));
    EXPECT_FALSE(equal(Tally(true, 1, 2.0), Tally(true, 2, 2.0)));
    EXPECT_FALSE(equal(Tally(true, 1, 2.0), Tally(true, 1, 2.5)));
    EXPECT_TRUE(equal(Tally(true, 1, 0.0), Tally(true, 1, -0.0)));
    EXPECT_FALSE(equal(MaybeText("", false), MaybeText("a", false)));
}

TEST(GenericIfTest, NaNIsUnequalToItself) {
    Tally const tally(false, 0, std::nan(""));
    EXPECT_FALSE(equal(tally, tally));
    EXPECT_FALSE(equal(F64(std::nan("")), F64(std::nan(""))));
    EXPECT_FALSE(equal(Seconds(std::nan("")), Seconds(std::nan(""))));
}

TEST(GenericIfTest, EqualityAndOrderCanBeTheTypesOwn) {
    EXPECT_TRUE(equal(Moment(1.0, 1.0), Moment(1.0009, 2.0)));
    EXPECT_FALSE(equal(Moment(1.0, 1.0), Moment(1.002, 1.0)));
    EXPECT_FALSE(less(Moment(1.0, 1.0), Moment(1.0009, 1.0)));
    EXPECT_TRUE(less(Moment(1.0, 1.0), Moment(1.002, 1.0)));
    EXPECT_TRUE(equal(MaybeNumber(1ul << 63), MaybeNumber((1ul << 63) + 1)));
    EXPECT_TRUE(less(MaybeNumber(1ul << 63), MaybeNumber(0)));
}

TEST(GenericIfTest, OrderIsTheTypesOperator) {
    EXPECT_TRUE(less(ChipBits(9, 0), ChipBits(0, 1)));
    EXPECT_FALSE(less(ChipBits(0, 1), ChipBits(9, 0)));
    EXPECT_TRUE(less(Stamp(1, 5, 0), Stamp(1, 6, 0)));
    EXPECT_FALSE(less(Stamp(1, 5, 0), Stamp(1, 5, 0)));
    EXPECT_TRUE(less(U8(200), U8(201)));
}

TEST(GenericIfTest, ArithmeticYieldsValuesOfTheType) {
    auto const apply = [](AttributeOp op, U64 a, U64 b) {
        MaybeNumber value(a);
        MaybeNumber const other(b);
        MaybeNumber result;
        EXPECT_EQ(operate(value, VelAttr(), op, &result, &other), 0);
        return valueToStrep(result).stdString();
    };
    EXPECT_EQ(apply(AttributeOp::sum, 12, 4), "16");
    EXPECT_EQ(apply(AttributeOp::difference, 12, 4), "8");
    EXPECT_EQ(apply(AttributeOp::product, 12, 4), "48");
    EXPECT_EQ(apply(AttributeOp::quotient, 12, 4), "3");
}

TEST(GenericIfTest, SetArithmeticAndComplement) {
    auto const apply = [](AttributeOp op) {
        Words value(9, 0b1100);
        Words const other(9, 0b1010);
        Words result;
        EXPECT_EQ(operate(value, VelAttr(), op, &result, &other), 0);
        return result.word(0);
    };
    EXPECT_EQ(apply(AttributeOp::difference), 0b0100u);
    EXPECT_EQ(apply(AttributeOp::bitAnd), 0b1000u);
    EXPECT_EQ(apply(AttributeOp::bitOr), 0b1110u);
    EXPECT_EQ(apply(AttributeOp::bitXor), 0b0110u);
    EXPECT_EQ(apply(AttributeOp::complement), ~U64(0b1100));
}

// --- construction, text, hash, stream ---

// A T made in raw storage by the glue.
template <class T, class Make> T made(Make make) {
    alignas(T) unsigned char storage[sizeof(T)];
    std::fill(std::begin(storage), std::end(storage), 0xCD);
    make(static_cast<void*>(storage));
    T* const object = std::launder(reinterpret_cast<T*>(storage));
    T result = *object;
    typeOf<T>().glue().genericIfDestruct(object);
    return result;
}
template <class T> T fromArguments(std::vector<void const*> const& arguments) {
    return made<T>([&](void* p) { typeOf<T>().glue().genericIfConstructFromCtorArgs(p, arguments.data()); });
}

TEST(GenericIfTest, ConstructsTheDefaultOrACopy) {
    MaybeText const source("long enough to be worth sharing", true);
    auto const& glue = typeOf<MaybeText>().glue();
    EXPECT_EQ(made<MaybeText>([&](void* p) { glue.genericIfConstruct(p, &source); }), source);
    EXPECT_EQ(made<MaybeText>([&](void* p) { glue.genericIfConstruct(p, nullptr); }), MaybeText());
    auto const& numbers = typeOf<U64>().glue();
    EXPECT_EQ(made<U64>([&](void* p) { numbers.genericIfConstruct(p, nullptr); }), 0u);
}

TEST(GenericIfTest, ConstructsFromArgumentsInOrder) {
    U32 const timestamp = 1;
    U16 const pid = 2;
    U16 const count = 3;
    EXPECT_EQ(fromArguments<Stamp>({&timestamp, &pid, &count}), Stamp(1, 2, 3));
    EXPECT_EQ(fromArguments<Words>({&pid, &count}), Words(2, 3));
}

TEST(GenericIfTest, NumberConstructsFromItsValue) {
    U8 const value = 9;
    U8 const wrong = 129;
    EXPECT_EQ(fromArguments<Chip>({&value}), Chip(9));
    EXPECT_THROW(fromArguments<Chip>({&wrong}), Vel::RangeException);
    U64 const large = 77;
    EXPECT_EQ(valueToStrep(fromArguments<MaybeNumber>({&large})), "77");
    EXPECT_EQ(fromArguments<U64>({&large}), 77u);
}

TEST(GenericIfTest, RecordWithoutConstructorArgumentsIgnoresThem) {
    EXPECT_EQ(fromArguments<Tally>({nullptr}), Tally());
    EXPECT_EQ(
        made<Tally>([&](void* p) { typeOf<Tally>().glue().genericIfConstructFromCtorArgs(p, nullptr); }), Tally());
}

TEST(GenericIfTest, TextIsAssignedWhole) {
    Tally tally;
    auto const& glue = typeOf<Tally>().glue();
    glue.genericIfStrepToValue(
        &tally, "Value('Fixture::Tally', ** {'current': True, 'changes': 5, 'last': 1.0})", typeOf<Tally>());
    EXPECT_EQ(tally, Tally(true, 5, 1.0));
    EXPECT_EQ(glue.genericIfStrRep(&tally, typeOf<Tally>()),
        "Value('Fixture::Tally', ** {'current': True, 'changes': 5, 'last': 1.0})");
}

template <class T> void expectUnchangedBy(T value, char const* text) {
    auto const& glue = typeOf<T>().glue();
    String const before = glue.genericIfStrRep(&value, typeOf<T>());
    EXPECT_THROW(glue.genericIfStrepToValue(&value, text, typeOf<T>()), Vel::RangeException) << text;
    EXPECT_EQ(glue.genericIfStrRep(&value, typeOf<T>()), before);
}

TEST(GenericIfTest, ValueIsUnchangedWhenATextDoesNotParse) {
    Tally const tally(true, 5, 1.0);
    expectUnchangedBy(tally, "");
    expectUnchangedBy(tally, "Value('Fixture::Tally', ** {'current': False, 'changes': 7, 'last': x})");
    expectUnchangedBy(tally, "Value('Fixture::Tally', ** {'current': False, 'changes': 7, 'last': 2.0}) ");
    expectUnchangedBy(Chip(4), "129");
    expectUnchangedBy(Chip(4), "7 ");
    expectUnchangedBy(MaybeNumber(4), "Nonee");
    expectUnchangedBy(MaybeText("a", true), "Value('Fixture::MaybeText', ** {'value': 'b', 'isSet': 1})");
    expectUnchangedBy(Words(1, 2), "Words(3, 4: )");
    expectUnchangedBy(String("a"), "'b");
}

TEST(GenericIfTest, HashableTypesHash) {
    auto const hash = [](auto const& value) {
        auto const type = typeOf<std::remove_cvref_t<decltype(value)>>();
        return type.glue().genericIfHash(&value, type);
    };
    EXPECT_EQ(hash(Chip(9)), 9u);
    EXPECT_EQ(hash(Stamp(1, 2, 3)), Stamp(1, 2, 3).hash(0));
    EXPECT_EQ(hash(ChipBits(1, 2)), ChipBits(1, 2).hash(0));
}

TEST(GenericIfTest, OtherTypesRefuseToHash) {
    auto const message = [](auto const& value) -> std::string {
        auto const type = typeOf<std::remove_cvref_t<decltype(value)>>();
        try {
            type.glue().genericIfHash(&value, type);
        } catch (Vel::UnhashableException const& error) {
            return error.what();
        }
        return "hashed";
    };
    EXPECT_EQ(message(Tally()), "values of type Fixture::Tally have no hash");
    EXPECT_EQ(message(MaybeNumber()), "values of type Fixture::MaybeNumber have no hash");
    EXPECT_EQ(message(String()), "values of type Vel::String have no hash");
    EXPECT_EQ(message(true), "values of type bool have no hash");
    EXPECT_THROW(GenericIfImpl::throwUnhashableException(VelType()), Vel::UnhashableException);
}

// --- generic values ---

TEST(GenericValueTest, HoldsAnyValueType) {
    VelType const type = Vel::Registry::type("Fixture::MaybeText");
    GenericValue const value(type, "Value('Fixture::MaybeText', ** {'value': 'abc', 'isSet': True})");
    EXPECT_EQ(value.strep(), "Value('Fixture::MaybeText', ** {'value': 'abc', 'isSet': True})");
    EXPECT_EQ(value.attrLogSize(), 8u);
    EXPECT_EQ(value.get(type.attribute("value").value())->strep(), "'abc'");
    EXPECT_FALSE(value.get(type.attribute("valueSet").value()));
    EXPECT_EQ(GenericValue(type).strep(), "Value('Fixture::MaybeText', ** {'value': '', 'isSet': False})");
}

TEST(GenericValueTest, CopiesAndMoves) {
    GenericValue a(typeOf<MaybeText>(), "Value('Fixture::MaybeText', ** {'value': 'abc', 'isSet': True})");
    GenericValue const b(a);
    GenericValue c(typeOf<U32>());
    c = a;
    GenericValue const moved(std::move(a));
    EXPECT_EQ(b.strep(), moved.strep());
    EXPECT_EQ(c.strep(), moved.strep());
    EXPECT_EQ(c.test(AttributeOp::equal, &moved), true);
}

TEST(GenericValueTest, EveryValueTypeGoesThroughTextAndStream) {
    for (VelType const type : Vel::Registry::types()) {
        if (type.isEntity()) continue;
        GenericValue const value(type);
        EXPECT_EQ(GenericValue(type, value.strep()).strep(), value.strep()) << type.name();
        Vel::NboAttrLog::Out out;
        type.glue().write(out, value.data());
        EXPECT_EQ(out.size(), value.attrLogSize()) << type.name();
        if (type.hasFixedEncodedSize()) {
            EXPECT_EQ(out.size(), type.encodedSize()) << type.name();
        }
        Vel::NboAttrLog::In in(out.bytes());
        EXPECT_EQ(GenericValue(type, in).strep(), value.strep()) << type.name();
        EXPECT_EQ(in.left(), 0u) << type.name();
    }
}

TEST(GenericValueTest, RefusesEntitiesAndTheNullType) {
    EXPECT_THROW(GenericValue value(typeOf<Leaf>()), Vel::TypeException);
    EXPECT_THROW(GenericValue value{VelType()}, Vel::TypeException);
}

TEST(GenericValueTest, RefusesWhatDoesNotParse) {
    EXPECT_THROW(GenericValue(typeOf<MaybeText>(), "x"), Vel::ParseException);
    Vel::NboAttrLog::In empty({});
    EXPECT_THROW(GenericValue(typeOf<MaybeText>(), empty), Vel::StreamException);
}

TEST(GenericValueTest, TestsOnlyWhatYieldsABool) {
    GenericValue const words(typeOf<Words>());
    GenericValue const number(typeOf<MaybeNumber>());
    EXPECT_EQ(words.test(AttributeOp::truth), false);
    EXPECT_EQ(words.test(AttributeOp::less, &words), false);
    EXPECT_EQ(words.test(AttributeOp::equal, &number), std::nullopt);
    EXPECT_EQ(words.test(AttributeOp::equal), std::nullopt);
    EXPECT_EQ(words.test(AttributeOp::bitOr, &words), std::nullopt);
    EXPECT_EQ(GenericValue(typeOf<Tally>()).test(AttributeOp::less, &words), std::nullopt);
}

// --- views ---

// Two types made by hand: `derived` claims to derive from `base`; each may claim to be polymorphic.
class GenericIfVoidPtrTest : public testing::Test {
protected:
    struct Table {
        Vel::ModuleHeader header{};
        Vel::TypeRecord types[2]{};
        char names[3] = "b";
        Vel::TypeGlue const* glue[2];
    };
    GenericIfVoidPtrTest() {
        current = this;
        baseGlue.base = [] { return VelType(); };
        derivedGlue.base = [] { return current->base(); };
        table.header.types = offsetof(Table, types);
        table.header.typeNames = offsetof(Table, names);
        table.header.glue = offsetof(Table, glue);
        table.glue[0] = &baseGlue;
        table.glue[1] = &derivedGlue;
    }
    VelType base() const { return {&table.header, 0}; }
    VelType derived() const { return {&table.header, 1}; }
    void polymorphicAre(bool baseIs, bool derivedIs) {
        table.types[0].flags = baseIs ? Vel::TypeFlag::polymorphic : 0;
        table.types[1].flags = derivedIs ? Vel::TypeFlag::polymorphic : 0;
    }
    static inline GenericIfVoidPtrTest* current = nullptr;
    Table table;
    Vel::TypeGlue baseGlue{};
    Vel::TypeGlue derivedGlue{};
    char object[32] = {};
};

TEST_F(GenericIfVoidPtrTest, SameTypeIsTheSameAddress) {
    polymorphicAre(true, false);
    EXPECT_EQ(GenericIfImpl::genericIfVoidPtrIs(object, base(), base()), object);
    EXPECT_EQ(GenericIfImpl::genericIfVoidPtrIs(object, derived(), derived()), object);
}

TEST_F(GenericIfVoidPtrTest, DerivedTypeOfTheSameSortIsTheSameAddress) {
    polymorphicAre(false, false);
    EXPECT_EQ(GenericIfImpl::genericIfVoidPtrIs(object, base(), derived()), object);
    polymorphicAre(true, true);
    EXPECT_EQ(GenericIfImpl::genericIfVoidPtrIs(object, base(), derived()), object);
}

TEST_F(GenericIfVoidPtrTest, PlainBaseLiesBehindTheTablePointerOfAPolymorphicType) {
    polymorphicAre(false, true);
    EXPECT_EQ(GenericIfImpl::genericIfVoidPtrIs(object, base(), derived()), object + 8);
}

TEST_F(GenericIfVoidPtrTest, PolymorphicBaseOfAPlainTypeFailsAnAssertion) {
    polymorphicAre(true, false);
    EXPECT_DEATH(GenericIfImpl::genericIfVoidPtrIs(object, base(), derived()),
        "/usr/include/Vel/GenericIfImpl:[0-9]+: .*genericIfVoidPtrIs.*: Assertion `type.isPolymorphic\\(\\)' failed");
}

TEST_F(GenericIfVoidPtrTest, UnrelatedTypeIsRefused) {
    auto const message = [&](VelType have, VelType want) -> std::string {
        try {
            GenericIfImpl::genericIfVoidPtrIs(object, have, want);
        } catch (Vel::TypeException const& error) {
            return error.what();
        }
        return "accepted";
    };
    EXPECT_EQ(message(typeOf<Leaf>(), typeOf<Vel::Dir>()), "the operation does not apply to a value of type Vel::Dir");
    EXPECT_EQ(message(typeOf<Twig>(), typeOf<Leaf>()), "the operation does not apply to a value of type Fixture::Leaf");
    EXPECT_EQ(message(typeOf<U8>(), typeOf<U16>()), "the operation does not apply to a value of type U16");
    EXPECT_EQ(message(typeOf<U8>(), VelType()), "the operation does not apply to a value without a type");
    EXPECT_EQ(message(VelType(), typeOf<U8>()), "the operation does not apply to a value of type U8");
}

TEST_F(GenericIfVoidPtrTest, EveryTypeRecordHasIt) {
    for (VelType const type : Vel::Registry::types()) {
        ASSERT_NE(type.glue().genericIfVoidPtrIs, nullptr) << type.name();
        EXPECT_EQ(type.glue().genericIfVoidPtrIs(object, type, type), object) << type.name();
    }
    EXPECT_THROW(typeOf<U8>().glue().genericIfVoidPtrIs(object, typeOf<U8>(), typeOf<U16>()), Vel::TypeException);
}

TEST_F(GenericIfVoidPtrTest, EntityTypesOfOneLineShareTheirAddress) {
    EXPECT_EQ(GenericIfImpl::genericIfVoidPtrIs(object, typeOf<Leaf>(), typeOf<Twig>()), object);
    EXPECT_EQ(GenericIfImpl::genericIfVoidPtrIs(object, typeOf<Vel::Entity>(), typeOf<Twig>()), object);
}

}  // namespace
