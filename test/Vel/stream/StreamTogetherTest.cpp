#include "StreamTools.h"
#include "Tank.h"
#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/entity/Together.h"
#include "Vel/stream/AttrLogServer.h"

#include <stdexcept>

// Values that change together: all or none, at the source and in each copy. And calls.
namespace StreamTest {

namespace {

using Vel::AttributeId;
using Vel::Ptr;
using Vel::String;
using Vel::together;
using Vel::ValueRef;
using Vel::ValueWrite;
using Vel::WriteAnswer;
using Vel::WriteResult;
using Vel::NboAttrLog::Compact;

constexpr AttributeId next = Vel::attributeId<Tank>("next");

// A source of a tank that takes changes, and a copy. The copy's observer notes what it is told of, and what the copy
// has then.
class TogetherStreamTest : public testing::Test {
protected:
    TogetherStreamTest() { connect(); }
    ~TogetherStreamTest() override { disconnect(); }

    void connect() {
        reader = source.newReader();
        replica.connected();
        run();
        watch = Vel::notifieeOf(*copy(), [this](AttributeId id) {
            seen.push_back(std::string(Tank::newEntity("")->fwkType().attributeOfId(id)->name()) + " " + limits());
        });
    }
    void disconnect() {
        watch = nullptr;
        if (reader) reader->closed("");
        reader = nullptr;
        replica.closed("");
    }
    void run(std::size_t limit = 1u << 16) {
        while (replica.wantsOutput() || reader->wantsOutput()) {
            reader->input(takeOutput(replica, limit));
            replica.input(takeOutput(*reader, limit));
        }
    }
    Ptr<Tank> copy() const { return Vel::ptr_cast<Tank>(replica.root()); }
    std::string limits() const { return std::to_string(copy()->low()) + "-" + std::to_string(copy()->high()); }
    Strings taken() { return std::exchange(seen, {}); }
    Vel::EntityId id() { return source.impl().adapter(*tank)->id(); }

    Vel::WriteTold note() {
        return [this](WriteAnswer const& answer) {
            std::string text = Vel::writeResultName(answer.result);
            if (answer.attribute) text += " " + std::string(tank->fwkType().attributeOfId(answer.attribute)->name());
            if (!answer.text.empty()) text += ": " + answer.text.stdString();
            if (answer.value) text += " " + answer.value->strep().stdString();
            answers.push_back(text + ", " + limits());
        };
    }
    // What is answered to the group.
    std::string answerTo(std::initializer_list<ValueWrite> values) {
        replica.writeTogether(*copy(), values, note());
        run();
        return std::exchange(answers, {}).at(0);
    }
    std::string answerToCall(std::string_view method, std::initializer_list<ValueRef> arguments) {
        replica.call(*copy(), tank->fwkType().attribute(method)->attributeId(), arguments, note());
        run();
        return std::exchange(answers, {}).at(0);
    }

    Ptr<Tank> tank = Tank::newEntity("tank");
    Vel::AttrLogSource source{tank, {.mayWrite = true}};
    std::unique_ptr<Vel::StreamPeer> reader;
    Vel::AttrLogReplica replica{Vel::Dir::newEntity(""), "tank", {.path = {}, .wantsToWrite = true}};
    std::unique_ptr<Vel::Notifiee> watch;
    Strings seen, answers;
};

// --- changes of the program itself ---

TEST_F(TogetherStreamTest, ValuesAreOneMessageAndTheCopyHasBothOrNone) {
    together(*tank, [&] {
        tank->highIs(9);
        tank->lowIs(3);
    });
    Bytes const bytes = takeOutput(*reader);
    EXPECT_EQ(messages(bytes), Strings{"1101410304000000094102"
                                       "0400000003"});
    for (Vel::U8 const byte : bytes) replica.input({&byte, 1});
    EXPECT_EQ(taken(), (Strings{"high 3-9", "low 3-9"}));
}

TEST_F(TogetherStreamTest, OneValueIsAnOrdinaryMessage) {
    together(*tank, [&] { tank->lowIs(3); });
    EXPECT_EQ(messages(takeOutput(*reader)), Strings{"0501410200000003"});
}

TEST_F(TogetherStreamTest, PointersAndTheirEntitiesFollow) {
    together(*tank, [&] {
        tank->nextIs(Tank::newEntity("second"));
        tank->lowIs(3);
        tank->labelIs("x");
    });
    Strings const sent = told(takeOutput(*reader));
    ASSERT_GE(sent.size(), 3u);
    EXPECT_EQ(sent[1], "announce 2 type 0 at 1.262 second");
    run();
    together(*tank, [&] {
        tank->nextIs(nullptr);
        tank->lowIs(4);
        tank->labelIs("y");
    });
    Bytes const bytes = takeOutput(*reader);
    replica.input(bytes);
    EXPECT_EQ(told(bytes).back(), "value 1.262 00000000");
}

TEST_F(TogetherStreamTest, ReadersOfTwoPathsGetOneMessage) {
    auto const dir = Vel::Dir::newEntity("root");
    dir->entryIs(tank);
    Vel::AttrLogServer server(dir);
    Vel::AttrLogReplica whole(Vel::Dir::newEntity(""), "all", {}),
        part(Vel::Dir::newEntity(""), "part", {.path = "/tank"});
    auto const ofWhole = server.newReader(), ofPart = server.newReader();
    auto const carry = [](Vel::AttrLogReplica& to, Vel::StreamPeer& from) {
        from.input(takeOutput(to));
        Bytes const bytes = takeOutput(from);
        to.input(bytes);
        return told(bytes);
    };
    for (auto* const one : {&whole, &part}) one->connected();
    carry(whole, *ofWhole);
    carry(part, *ofPart);
    together(*tank, [&] {
        tank->highIs(9);
        tank->lowIs(3);
    });
    EXPECT_EQ(carry(whole, *ofWhole).size(), 1u);
    EXPECT_EQ(carry(part, *ofPart).size(), 1u);
    EXPECT_EQ(Vel::ptr_cast<Tank>(part.root())->low(), 3u);
    for (auto const& one : {ofWhole.get(), ofPart.get()}) one->closed("");
}

// --- readers that have fallen behind ---

class TogetherBehindTest : public TogetherStreamTest {
protected:
    TogetherBehindTest() {
        disconnect();
        reader = small.newReader();
        replica.connected();
        run();
        watch = Vel::notifieeOf(*copy(), [this](AttributeId) { EXPECT_EQ(copy()->low() * 3, copy()->high()); });
    }
    ~TogetherBehindTest() override { disconnect(); }
    void change(U32 v) {
        together(*tank, [&] {
            tank->lowIs(v);
            tank->highIs(3 * v);
        });
    }
    void step() {
        auto const bytes = reader->output(1);
        replica.input(bytes);
        reader->outputTaken(bytes.size());
    }
    Vel::AttrLogSource small{tank, {.logSize = 0, .limits = {}, .chunkSize = 64}};
};

TEST_F(TogetherBehindTest, GetValuesThatChangedTogetherInOneMessage) {
    for (U32 v = 1; v <= 100; ++v) change(v);
    EXPECT_EQ(dynamic_cast<Vel::AttrLogReader&>(*reader).timesBehind(), 1u);
    Strings const sent = told(takeOutput(*reader));
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0], "values 1 410204000000644103"
                       "040000012c");
}

TEST_F(TogetherBehindTest, GetThemInOneMessageAlsoIfTheyHaveNotReadThatOfTheLog) {
    change(1);
    for (U32 i = 0; i < 20; ++i) tank->countIs(i + 1);
    EXPECT_EQ(dynamic_cast<Vel::AttrLogReader&>(*reader).timesBehind(), 1u);
    Strings const sent = told(takeOutput(*reader));
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0], "values 1 4102040000000141030400000003410504"
                       "00000014");
}

// Whatever has been sent when the values change again, the copy never has one without the other.
TEST_F(TogetherBehindTest, NeverHaveHalfOfAChange) {
    U32 v = 0;
    for (int steps = 0; steps < 40; ++steps) {
        for (int i = 0; i < 60; ++i) {
            tank->countIs(tank->count() + 1);  // makes the reader fall behind
            if (i % 20 == 0) tank->labelIs(Vel::format("label %d", i));
        }
        change(++v);
        for (int i = 0; i < steps; ++i) step();
        change(++v);
        run(1);
        ASSERT_EQ(replica.error(), "");
        ASSERT_EQ(copy()->low(), v);
    }
    EXPECT_GT(dynamic_cast<Vel::AttrLogReader&>(*reader).timesBehind(), 20u);
}

TEST_F(TogetherBehindTest, OneFlaggedValueIsAnOrdinaryMessage) {
    change(1);
    run();
    for (U32 i = 0; i < 100; ++i) tank->countIs(i + 1);
    together(*tank, [&] { tank->countIs(5000); });
    Bytes const bytes = takeOutput(*reader);
    EXPECT_EQ(messages(bytes)[0].substr(0, 2), "05");
    replica.input(bytes);
    EXPECT_EQ(copy()->count(), 5000u);
}

// --- changes that a reader asks for ---

TEST_F(TogetherStreamTest, ReaderChangesSeveralValuesAsOne) {
    Strings atSource;
    auto const observer = Vel::notifieeOf(*tank,
        [&](AttributeId) { atSource.push_back(std::to_string(tank->low()) + "-" + std::to_string(tank->high())); });
    EXPECT_EQ(answerTo({{low, U32(3)}, {high, U32(9)}, {label, String("l")}}), "done, 3-9");
    EXPECT_EQ(atSource, (Strings{"3-9", "3-9", "3-9"}));
    EXPECT_EQ(taken(), (Strings{"low 3-9", "high 3-9", "label 3-9"}));
    EXPECT_EQ(copy()->label(), "l");
}

TEST_F(TogetherStreamTest, RejectedGroupChangesNothingAndNobodyIsTold) {
    answerTo({{low, U32(3)}, {high, U32(9)}});
    taken();
    bool isTold = false;
    auto const observer = Vel::notifieeOf(*tank, [&](AttributeId) { isTold = true; });
    EXPECT_EQ(answerTo({{high, U32(200)}, {low, U32(101)}, {label, String("never")}}), "rejected low: too low, 3-9");
    EXPECT_EQ(answerTo({{high, U32(200)}, {low, U32(102)}}), "rejected low: set, and yet not, 3-9");
    EXPECT_EQ(tank->high(), 9u);
    EXPECT_EQ(tank->label(), "");
    EXPECT_FALSE(isTold);
    EXPECT_EQ(taken(), Strings{});
}

// What a mutator has changed besides stays changed, and what cannot be put back, too: then copies follow.
TEST_F(TogetherStreamTest, WhatCannotBePutBackIsTold) {
    tank->isStuck = true;
    EXPECT_EQ(answerTo({{high, U32(9)}, {label, String("counted")}, {low, U32(101)}}), "rejected low: too low, 0-9");
    EXPECT_EQ(tank->high(), 9u);
    EXPECT_EQ(copy()->count(), 1u);
    EXPECT_EQ(copy()->label(), "");
    EXPECT_EQ(taken(), (Strings{"high 0-9", "count 0-9"}));
}

TEST_F(TogetherStreamTest, WhatCannotBePutBackIsToldAlsoIfAnEarlierObserverThrows) {
    auto const other = Tank::newEntity("other");
    auto const observer = Vel::notifieeOf(*other, [](AttributeId) { throw std::runtime_error("no"); });
    Vel::AttrLogSource second(other, {.mayWrite = true});
    other->isStuck = true;
    disconnect();
    reader = second.newReader();
    Vel::AttrLogReplica follower(Vel::Dir::newEntity(""), "other", {.path = {}, .wantsToWrite = true});
    auto const carry = [&] {
        while (follower.wantsOutput() || reader->wantsOutput()) {
            reader->input(takeOutput(follower));
            follower.input(takeOutput(*reader));
        }
    };
    follower.connected();
    carry();
    auto const followed = Vel::ptr_cast<Tank>(follower.root());
    Strings results;
    auto const result = [&](WriteAnswer const& a) { results.push_back(Vel::writeResultName(a.result)); };
    follower.writeTogether(*followed, {{high, U32(9)}, {label, String("l")}, {low, U32(101)}}, result);
    carry();
    EXPECT_EQ(followed->high(), 9u);
    follower.writeTogether(*followed, {{high, U32(10)}, {low, U32(1)}}, result);
    carry();
    EXPECT_EQ(followed->high(), 10u);
    EXPECT_EQ(followed->low(), 1u);
    follower.call(*followed, tank->fwkType().attribute("limitsIs")->attributeId(), {U32(2), U32(20)}, result);
    carry();
    EXPECT_EQ(followed->low(), 2u);
    other->isStuck = false;
    follower.write(*followed, label, String("full"), result);
    carry();
    EXPECT_EQ(followed->low(), 5u);
    EXPECT_EQ(followed->high(), 6u);
    EXPECT_EQ(results, (Strings{"rejected", "observer failed", "observer failed", "observer failed"}));
    follower.closed("");
}

TEST_F(TogetherStreamTest, GroupIsSetOnlyIfAllExpectedValuesAreThere) {
    U32 const none = 0, fifth = 5, third = 3;
    ValueRef const isNone(none), isFifth(fifth), isThird(third);
    EXPECT_EQ(answerTo({{low, third, &isNone}, {high, U32(9), &isFifth}}), "differs high 0, 0-0");
    EXPECT_EQ(answerTo({{low, third, &isNone}, {high, U32(9), &isNone}}), "done, 3-9");
    EXPECT_EQ(answerTo({{high, U32(10)}, {low, U32(4), &isThird}}), "done, 4-10");
    EXPECT_EQ(answerTo({{high, U32(11)}, {low, U32(5), &isThird}}), "differs low 4, 4-10");
}

TEST_F(TogetherStreamTest, ReaderWithoutRightsIsToldSo) {
    disconnect();
    reader = source.newReader(false);
    replica.connected();
    run();
    EXPECT_THROW(replica.writeTogether(*copy(), {{low, U32(1)}, {high, U32(2)}}, note()), Vel::ReadOnlyException);
    EXPECT_THROW(
        replica.call(*copy(), tank->fwkType().attribute("clear")->attributeId(), {}, note()), Vel::ReadOnlyException);
    tank->lowIs(5);
    run();
    reader->input(message(MessageKind::writeValues,
        [&](Out& out) { out << Compact{0} << Compact{id()} << Vel::U8(0) << Compact{low} << 7u; }));
    reader->input(message(MessageKind::call, [&](Out& out) {
        out << Compact{1} << Compact{id()} << Compact{tank->fwkType().attribute("clear")->attributeId()};
    }));
    EXPECT_EQ(told(takeOutput(*reader)), (Strings{"answer 0 read-only: tank is mounted read-only and takes no changes",
                                             "answer 1 read-only: tank is mounted read-only and takes no changes"}));
    EXPECT_EQ(tank->low(), 5u);
}

TEST_F(TogetherStreamTest, GroupThatCannotBeAskedForIsNotAnswered) {
    String const word("x");
    ValueRef const text(word);
    EXPECT_THROW(replica.writeTogether(*copy(), {}, note()), Vel::RangeException);
    EXPECT_THROW(replica.writeTogether(*copy(), {{low, U32(1)}, {low, U32(2)}}, note()), Vel::RangeException);
    EXPECT_THROW(replica.writeTogether(*copy(), {{low, String("x")}}, note()), Vel::TypeException);
    EXPECT_THROW(replica.writeTogether(*copy(), {{low, U32(1), &text}}, note()), Vel::TypeException);
    EXPECT_THROW(replica.writeTogether(*copy(), {{next, U32(1)}}, note()), Vel::RangeException);
    EXPECT_THROW(replica.writeTogether(*tank, {{low, U32(1)}}, note()), Vel::RangeException);
    EXPECT_EQ(replica.unansweredWrites(), 0u);
    EXPECT_FALSE(replica.wantsOutput());
}

// --- calls ---

TEST_F(TogetherStreamTest, CallIsAnsweredWithItsResultWhenTheCopyHasWhatItChanged) {
    EXPECT_EQ(answerToCall("limitsIs", {U32(3), U32(9)}), "done '3 to 9', 3-9");
    EXPECT_EQ(taken(), (Strings{"high 3-9", "low 3-9"}));
    EXPECT_EQ(answerToCall("clear", {}), "done, 0-0");
}

TEST_F(TogetherStreamTest, MethodThatThrowsIsRejectedWithItsWords) {
    EXPECT_EQ(answerToCall("limitsIs", {U32(9), U32(3)}), "rejected: the limits are the wrong way round, 0-0");
    EXPECT_EQ(answerToCall("breakDown", {}), "rejected: broken, 77-0") << "a call puts nothing back";
}

TEST_F(TogetherStreamTest, ResultComesAlsoIfAnObserverFails) {
    auto const observer = Vel::notifieeOf(*tank, [](AttributeId) { throw std::runtime_error("no"); });
    EXPECT_EQ(answerToCall("limitsIs", {U32(3), U32(9)}), "observer failed: no '3 to 9', 3-9");
}

TEST_F(TogetherStreamTest, CallThatCannotBeAskedForIsNotAnswered) {
    auto const call = [&](std::string_view method, std::initializer_list<ValueRef> arguments) {
        replica.call(*copy(), tank->fwkType().attribute(method)->attributeId(), arguments, note());
    };
    EXPECT_THROW(call("limitsIs", {U32(1)}), Vel::TypeException);
    EXPECT_THROW(call("limitsIs", {U32(1), String("x")}), Vel::TypeException);
    EXPECT_THROW(call("low", {}), Vel::RangeException);
    EXPECT_THROW(call("join", {U32(1)}), Vel::RangeException);
    EXPECT_THROW(call("following", {}), Vel::RangeException);
    EXPECT_THROW(replica.call(*tank, tank->fwkType().attribute("clear")->attributeId(), {}), Vel::RangeException);
    EXPECT_EQ(replica.unansweredWrites(), 0u);
    EXPECT_FALSE(replica.wantsOutput());
}

// --- enemies ---

TEST_F(TogetherStreamTest, WrongRequestsEndTheConnectionAndChangeNothing) {
    auto const expectRefused = [&](MessageKind kind, std::function<void(Out&)> const& body, std::string const& error) {
        reader->input(message(kind, [&](Out& out) {
            out << Compact{0} << Compact{id()};
            body(out);
        }));
        EXPECT_EQ(reader->error(), error.c_str());
        EXPECT_EQ(tank->low(), 0u);
        disconnect();
        connect();
    };
    auto const group = MessageKind::writeValues;
    expectRefused(
        group, [](Out&) {}, "the attribute log ends within U8 at offset 2: 1 bytes needed, 0 left");
    expectRefused(
        group, [](Out& out) { out << Vel::U8(0) << Compact{low} << 1u << Vel::U8(0) << Compact{low} << 2u; },
        "the value of attribute 258 comes twice");
    expectRefused(
        group, [](Out& out) { out << Vel::U8(1) << Compact{low} << 1u; }, "no value of several is changed by 1");
    expectRefused(
        group, [](Out& out) { out << Vel::U8(0) << Compact{low} << 1u << Vel::U8(0) << Compact{next} << 2u; },
        "StreamTest::Tank has no value attribute 262");
    expectRefused(
        group, [](Out& out) { out << Vel::U8(0) << Compact{low} << 1u << Vel::U8(0) << Compact{high}; },
        "the attribute log ends within U32 at offset 12: 4 bytes needed, 0 left");
    auto const call = MessageKind::call;
    auto const clear = tank->fwkType().attribute("clear")->attributeId();
    auto const limitsIs = tank->fwkType().attribute("limitsIs")->attributeId();
    expectRefused(
        call, [&](Out& out) { out << Compact{clear} << Vel::U8(0); }, "a message with bytes behind its end");
    expectRefused(
        call, [&](Out& out) { out << Compact{limitsIs} << 5u; },
        "the attribute log ends within U32 at offset 8: 4 bytes needed, 0 left");
    expectRefused(
        call, [&](Out& out) { out << Compact{low} << 5u; }, "StreamTest::Tank has no method 258 that readers can call");
    expectRefused(
        call, [&](Out& out) { out << Compact{clear + 2} << 5u; },
        "StreamTest::Tank has no method 266 that readers can call");
}

TEST_F(TogetherStreamTest, WrongGroupsOfASourceChangeNothing) {
    auto const expectRefused = [&](std::function<void(Out&)> const& body, std::string const& error) {
        replica.input(message(MessageKind::values, [&](Out& out) {
            out << Compact{id()};
            body(out);
        }));
        EXPECT_EQ(replica.error(), error.c_str());
        EXPECT_EQ(limits(), "0-0");
        EXPECT_EQ(taken(), Strings{});
        disconnect();
        connect();
    };
    auto const one = [](Out& out, AttributeId id, U32 value) { out << Compact{id} << Compact{4} << value; };
    expectRefused([&](Out& out) { one(out, low, 1), out << Compact{high}; },
        "the attribute log ends within U8 at offset 10: 1 bytes needed, 0 left");
    expectRefused([&](Out& out) { one(out, low, 1), one(out, low, 2); }, "the value of attribute 258 comes twice");
    expectRefused([&](Out& out) { one(out, high, 1), one(out, low, 101); }, "too low");
    expectRefused([&](Out& out) { one(out, next, 1); }, "StreamTest::Tank has no value attribute 262");
    expectRefused([&](Out& out) { out << Compact{low} << Compact{5} << 1u; }, "4 bytes left for a value of 5");
    expectRefused([&](Out& out) { out << Compact{low} << Compact{3} << 1u; },
        "the attribute log ends within U32 at offset 0: 4 bytes needed, 3 left");
    expectRefused(
        [&](Out& out) { out << Compact{low} << Compact{5} << 1u << Vel::U8(0); }, "a value with bytes behind its end");
    expectRefused([](Out&) {}, "the attribute log ends within U8 at offset 1: 1 bytes needed, 0 left");
}

TEST_F(TogetherStreamTest, WrongAnswersEndTheConnection) {
    auto const expectWrong = [&](std::function<void(Out&)> const& body, std::string const& error) {
        replica.input(message(MessageKind::answer, body));
        EXPECT_EQ(replica.error(), error.c_str());
        disconnect();
        answers.clear();
        connect();
    };
    auto const ask = [&] { replica.writeTogether(*copy(), {{low, U32(1)}, {high, U32(2)}}, note()); };
    auto const call = [&](std::string_view method, std::initializer_list<ValueRef> arguments) {
        replica.call(*copy(), tank->fwkType().attribute(method)->attributeId(), arguments, note());
    };
    ask();
    expectWrong([](Out& out) { out << Compact{0} << Vel::U8(3) << Compact{next} << true << 1u; },
        "an answer about attribute 262, which is no value");
    ask();
    expectWrong([](Out& out) { out << Compact{0} << Vel::U8(2) << Compact{low}; },
        "the attribute log ends within the length of a Vel::String at offset 4: 4 bytes needed, 0 left");
    call("clear", {});
    expectWrong([](Out& out) { out << Compact{0} << Vel::U8(0) << 1u; }, "a message with bytes behind its end");
    call("clear", {});
    expectWrong([](Out& out) { out << Compact{0} << Vel::U8(3) << true; }, "the value of a call that returns nothing");
    call("limitsIs", {U32(1), U32(2)});
    expectWrong([](Out& out) { out << Compact{0} << Vel::U8(0); },
        "the attribute log ends within the length of a Vel::String at offset 2: 4 bytes needed, 0 left");
}

}  // namespace

}  // namespace StreamTest

VEL_MODULE(StreamTogetherTest, 0afc544811976de9, StreamTest::Tank);
