#include "Vel/stream/StreamWrite.h"
#include "StreamTools.h"
#include "ValueTable.h"
#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/entity/ObserverFailure.h"
#include "Vel/stream/internal/ReplicaWrites.h"

#include <stdexcept>

// Changes that readers ask for, and their answers.
namespace StreamTest {

// An entity whose mutators do not take everything.
class Valve : public Vel::EntityOf<Valve> {
public:
    explicit Valve(Vel::String const& name) : EntityOf(name) {}

    U32 pressure() const { return pressure_; }
    void pressureIs(U32 v) {
        if (v == 101) throw Vel::RangeException("a valve takes at most 100");
        if (v == 102) throw std::runtime_error("a runtime error");
        if (v == 103) throw 103;
        if (v == 104) throw Vel::RangeException("\x1b[31m" + Vel::String(std::string(5000, 'x')));
        if (v == 105) throw Vel::StreamException("as if the bytes were wrong", 7);
        velSet<&Valve::pressure_>(v);
    }
    U32 level() const { return level_; }
    void levelIs(U32 v) { velSet<&Valve::level_>(v); }

    static constexpr auto description() {
        return Vel::entity("StreamTest::Valve",
            Vel::attribute<&Valve::pressure_, &Valve::pressure, &Valve::pressureIs>("pressure"),
            Vel::attribute<&Valve::level_, &Valve::level, &Valve::levelIs>("level"));
    }

private:
    U32 pressure_ = 0;
    U32 level_ = 0;
};

namespace {

using Vel::Ptr;
using Vel::String;
using Vel::ValueRef;
using Vel::WriteAnswer;
using Vel::WriteResult;
using Vel::NboAttrLog::Compact;

constexpr auto pressure = Vel::attributeId<Valve>("pressure");
constexpr auto level = Vel::attributeId<Valve>("level");
auto const entry = ValueTable::entryAttribute;
auto const mark = ValueTable::markAttribute;

// A source of a valve and a table that takes changes, and a copy. The answers are noted as texts, with what the copy
// had when they came.
class AnsweredWriteTest : public testing::Test {
protected:
    AnsweredWriteTest() {
        root->entryIs(valve);
        root->entryIs(table);
        connect();
    }
    ~AnsweredWriteTest() override { disconnect(); }

    void connect() {
        reader = source.newReader();
        replica.connected();
        run();
    }
    void disconnect() {
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
    Ptr<Valve> valveCopy() const {
        return Vel::ptr_cast<Valve>(Vel::ptr_cast<Vel::Dir>(replica.root())->entry("valve"));
    }
    Ptr<ValueTable> tableCopy() const {
        return Vel::ptr_cast<ValueTable>(Vel::ptr_cast<Vel::Dir>(replica.root())->entry("table"));
    }
    Vel::WriteTold note() {
        return [this](WriteAnswer const& answer) {
            std::string text = Vel::writeResultName(answer.result);
            if (!answer.text.empty()) text += ": " + answer.text.stdString();
            if (answer.value) text += " " + answer.value->strep().stdString();
            answers.push_back(text);
            if (replica.root()) answers.back() += ", " + std::to_string(valveCopy()->pressure());
        };
    }
    void writePressure(U32 value) { replica.write(*valveCopy(), pressure, value, note()); }
    Strings taken() { return std::exchange(answers, {}); }

    Ptr<Vel::Dir> root = Vel::Dir::newEntity("root");
    Ptr<Valve> valve = Valve::newEntity("valve");
    Ptr<ValueTable> table = ValueTable::newEntity("table");
    Vel::AttrLogSource source{root, {.mayWrite = true}};
    std::unique_ptr<Vel::StreamPeer> reader;
    Vel::AttrLogReplica replica{Vel::Dir::newEntity(""), "root", {.path = {}, .wantsToWrite = true}};
    Strings answers;
};

TEST_F(AnsweredWriteTest, DoneIsToldWhenTheCopyHasTheChange) {
    writePressure(7);
    EXPECT_EQ(replica.unansweredWrites(), 1u);
    run();
    EXPECT_EQ(taken(), Strings{"done, 7"});
    EXPECT_EQ(replica.unansweredWrites(), 0u);
    EXPECT_EQ(valve->pressure(), 7u);
}

TEST_F(AnsweredWriteTest, DoneIsToldWhenTheCopyHasTheChangeAlsoIfFewBytesComeAtATime) {
    for (std::size_t limit = 1; limit < 40; ++limit) {
        U32 const first = valve->pressure() % 50;
        writePressure(first + 1);
        writePressure(first + 2);
        reader->input(takeOutput(replica));
        valve->levelIs(static_cast<U32>(limit));
        writePressure(first + 3);
        run(limit);
        ASSERT_EQ(taken().size(), 3u) << limit;
        ASSERT_EQ(valveCopy()->pressure(), first + 3);
    }
}

TEST_F(AnsweredWriteTest, NoAnswerComesBeforeItsChange) {
    for (std::size_t limit = 1; limit < 30; ++limit) {
        U32 const wanted = static_cast<U32>(limit);
        bool told = false;
        replica.write(*valveCopy(), pressure, wanted, [&](WriteAnswer const& answer) {
            told = true;
            EXPECT_EQ(answer.result, WriteResult::done);
            EXPECT_EQ(valveCopy()->pressure(), wanted);
        });
        reader->input(takeOutput(replica));
        while (!told) {
            auto const bytes = reader->output(limit);
            ASSERT_FALSE(bytes.empty());
            replica.input(bytes);
            reader->outputTaken(bytes.size());
        }
    }
}

// What others have changed before comes before the answer, however long it is.
TEST_F(AnsweredWriteTest, AnswerWaitsForALongLog) {
    for (U32 i = 1; i <= 3000; ++i) valve->levelIs(i);
    writePressure(7);
    U32 levelThen = 0;
    replica.write(*valveCopy(), level, U32(5), [&](WriteAnswer const&) { levelThen = valveCopy()->level(); });
    run(100);
    EXPECT_EQ(taken(), Strings{"done, 7"});
    EXPECT_EQ(levelThen, 5u);
}

TEST_F(AnsweredWriteTest, ChangeAndAnswerGoOutTogether) {
    writePressure(7);
    reader->input(takeOutput(replica));
    Strings const sent = told(reader->output(1000));
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1], "answer 0 done");
}

// The log has its turn while an answer waits, and stops within a message.
TEST_F(AnsweredWriteTest, AnswerDoesNotComeWithinAnotherMessage) {
    for (std::size_t limit = 1; limit < 30; ++limit) {
        auto const send = [&](std::size_t size) {
            auto const bytes = reader->output(size);
            replica.input(bytes);
            reader->outputTaken(bytes.size());
        };
        U32 const value = static_cast<U32>(2 * limit);
        writePressure(value);
        reader->input(takeOutput(replica));
        send(1000);
        ASSERT_EQ(taken().size(), 1u);
        writePressure(value + 1);
        reader->input(takeOutput(replica));
        valve->levelIs(value);
        send(limit);
        run();
        ASSERT_EQ(replica.error(), "") << limit;
        ASSERT_EQ(taken().size(), 1u);
        ASSERT_EQ(valveCopy()->level(), value);
    }
}

TEST_F(AnsweredWriteTest, MutatorsWordsComeBackAndNothingCloses) {
    writePressure(101);
    writePressure(102);
    writePressure(103);
    writePressure(105);
    writePressure(6);
    run();
    EXPECT_EQ(taken(), (Strings{"rejected: a valve takes at most 100, 0", "rejected: a runtime error, 0",
                           "rejected: an unknown exception, 0", "rejected: as if the bytes were wrong, 0", "done, 6"}));
    EXPECT_EQ(reader->error(), "");
    EXPECT_EQ(replica.error(), "");
}

TEST_F(AnsweredWriteTest, MutatorsWordsAreCleanedAndCut) {
    writePressure(104);
    run();
    std::string const text = taken().at(0);
    EXPECT_EQ(text.substr(0, 25), "rejected: \\x1b[31mxxxxxxx");
    EXPECT_EQ(text.size(), std::string("rejected: , 0").size() + 1024);
}

TEST_F(AnsweredWriteTest, ExceptionOfAnObserverIsToldApart) {
    auto const observer = notifieeOf(*valve, [&](Vel::AttributeId) {
        if (valve->pressure() == 8) throw std::runtime_error("an observer is unhappy");
    });
    writePressure(8);
    writePressure(101);
    run();
    EXPECT_EQ(
        taken(), (Strings{"observer failed: an observer is unhappy, 8", "rejected: a valve takes at most 100, 8"}));
}

// An observer that comes before the source's keeps it from being told.
TEST_F(AnsweredWriteTest, ChangeIsSentAlsoIfAnEarlierObserverThrows) {
    auto const other = Valve::newEntity("valve");
    auto const values = ValueTable::newEntity("table");
    auto const first = notifieeOf(*other, [](Vel::AttributeId) { throw std::runtime_error("no"); });
    auto const second = notifieeOf(*values, [](Vel::AttributeId) { throw std::runtime_error("no"); });
    root->entryDel("valve");
    root->entryDel("table");
    root->entryIs(other);
    root->entryIs(values);
    run();
    writePressure(9);
    replica.writeKey(*tableCopy(), entry, String("k"), Entry(5), note());
    run();
    EXPECT_EQ(taken(), (Strings{"observer failed: no, 9", "observer failed: no, 9"}));
    EXPECT_EQ(tableCopy()->entry("k"), Entry(5));
}

// The observer is not to blame for what it has caught.
TEST_F(AnsweredWriteTest, MutatorThatThrowsWithinAnObserversCatchIsNotTheObserver) {
    auto const other = Valve::newEntity("other");
    auto const quiet = notifieeOf(*other, [](Vel::AttributeId) {});
    auto const observer = notifieeOf(*other, [](Vel::AttributeId) { throw std::runtime_error("caught"); });
    Vel::ObserverFailure const observers(*other);
    try {
        other->levelIs(1);
    } catch (std::exception const&) {
        EXPECT_TRUE(observers.isHandled());
    }
    try {
        other->pressureIs(101);
    } catch (std::exception const&) {
        EXPECT_FALSE(observers.isHandled());
    }
}

TEST_F(AnsweredWriteTest, KeysAreSetAndDeleted) {
    replica.writeKey(*tableCopy(), entry, String("a"), Entry(3), note());
    replica.writeKey(*tableCopy(), mark, Vel::U8(7), U32(70), note());
    run();
    EXPECT_EQ(taken().size(), 2u);
    EXPECT_EQ(table->entry("a"), Entry(3));
    EXPECT_EQ(tableCopy()->mark(7), 70u);
    replica.deleteKey(*tableCopy(), entry, String("a"), note());
    replica.deleteKey(*tableCopy(), entry, String("never"), note());
    run();
    EXPECT_EQ(taken(), (Strings{"done, 0", "done, 0"}));
    EXPECT_FALSE(table->entryExists("a"));
    EXPECT_FALSE(tableCopy()->entryExists("a"));
}

TEST_F(AnsweredWriteTest, ExpectedValueIsComparedAndTheOneThatIsThereComesBack) {
    valve->pressureIs(5);
    replica.writeIf(*valveCopy(), pressure, U32(4), U32(6), note());
    replica.writeIf(*valveCopy(), pressure, U32(5), U32(7), note());
    replica.writeIf(*valveCopy(), pressure, U32(5), U32(8), note());
    run();
    EXPECT_EQ(taken(), (Strings{"differs 5, 5", "done, 7", "differs 7, 7"}));
    EXPECT_EQ(valve->pressure(), 7u);
}

TEST_F(AnsweredWriteTest, KeyIsMadeOnlyIfItIsNotThere) {
    Entry const three(3), four(4), five(5);
    ValueRef const was(three);
    auto const writeIf = [&](ValueRef const* expected, Entry const& value) {
        replica.writeKeyIf(*tableCopy(), entry, String("a"), expected, value, note());
        run();
        std::string const told = taken().at(0);
        return told.substr(0, told.find(','));
    };
    EXPECT_EQ(writeIf(&was, four), "differs") << "there is none";
    EXPECT_EQ(writeIf(nullptr, three), "done");
    EXPECT_EQ(writeIf(nullptr, four), "differs Value('StreamTest::Entry'");
    EXPECT_EQ(writeIf(&was, five), "done");
    EXPECT_EQ(table->entry("a"), five);
}

TEST_F(AnsweredWriteTest, EntityThatHasGoneIsToldOf) {
    auto const copy = valveCopy();
    root->entryDel("valve");
    valve = nullptr;
    replica.write(*copy, pressure, U32(3),
        [&](WriteAnswer const& answer) { answers.push_back(Vel::writeResultName(answer.result)); });
    run();
    EXPECT_EQ(taken(), Strings{"gone"});
}

TEST_F(AnsweredWriteTest, LostConnectionLeavesItUnknown) {
    writePressure(7);
    reader->input(takeOutput(replica));
    writePressure(8);
    disconnect();
    EXPECT_EQ(valve->pressure(), 7u);
    std::string const unknown = "unknown: the connection has ended before the answer came, 0";
    EXPECT_EQ(taken(), (Strings{unknown, unknown}));
    connect();
    EXPECT_EQ(taken(), Strings{}) << "each is told once";
    writePressure(9);
    run();
    EXPECT_EQ(taken(), Strings{"done, 9"});
}

TEST_F(AnsweredWriteTest, ChangeThatCannotBeAskedForIsNotAnswered) {
    EXPECT_THROW(replica.write(*valveCopy(), pressure, String("x"), note()), Vel::TypeException);
    EXPECT_THROW(replica.writeIf(*valveCopy(), pressure, String("x"), U32(1), note()), Vel::TypeException);
    EXPECT_THROW(replica.write(*tableCopy(), entry, Entry(1), note()), Vel::RangeException);
    EXPECT_THROW(replica.writeKey(*tableCopy(), entry, U32(1), Entry(1), note()), Vel::TypeException);
    EXPECT_THROW(replica.writeKey(*valveCopy(), pressure, U32(1), U32(1), note()), Vel::RangeException);
    EXPECT_EQ(replica.unansweredWrites(), 0u);
    EXPECT_FALSE(replica.wantsOutput());
}

TEST_F(AnsweredWriteTest, ManyWaitAtATime) {
    for (U32 i = 0; i < Vel::ReplicaWrites::most; ++i) writePressure(i % 100);
    EXPECT_THROW(writePressure(1), Vel::RangeException);
    run();
    EXPECT_EQ(taken().size(), Vel::ReplicaWrites::most);
    EXPECT_EQ(replica.error(), "");
    writePressure(1);
    run();
    EXPECT_EQ(taken(), Strings{"done, 1"});
}

TEST_F(AnsweredWriteTest, ReaderThatFellBehindIsAnsweredWhenItHasCaughtUp) {
    Vel::AttrLogSource small(root, {.logSize = 0, .mayWrite = true, .limits = {}, .chunkSize = 64});
    disconnect();
    reader = small.newReader();
    replica.connected();
    run();
    writePressure(1);
    reader->input(takeOutput(replica));
    for (U32 i = 1; i <= 100; ++i) valve->levelIs(i);
    writePressure(2);
    reader->input(takeOutput(replica));
    EXPECT_EQ(dynamic_cast<Vel::AttrLogReader&>(*reader).timesBehind(), 1u);
    run();
    EXPECT_EQ(taken(), (Strings{"done, 2", "done, 2"}));
    reader->closed("");
    reader = nullptr;
}

TEST_F(AnsweredWriteTest, ChangesBeforeTheSyncMarkAreAnsweredBehindIt) {
    Vel::AttrLogReplica late(Vel::Dir::newEntity(""), "root", {.path = {}, .wantsToWrite = true});
    auto const ofLate = source.newReader();
    late.connected();
    ofLate->input(takeOutput(late));
    auto const step = [&] {
        auto const bytes = ofLate->output(1);
        late.input(bytes);
        ofLate->outputTaken(bytes.size());
    };
    auto const copy = [&] { return late.root() ? Vel::ptr_cast<Vel::Dir>(late.root())->entry("valve") : nullptr; };
    while (!copy()) step();
    late.write(*copy(), pressure, U32(3), [&](WriteAnswer const& answer) {
        EXPECT_EQ(answer.result, WriteResult::done);
        EXPECT_EQ(late.state(), Vel::AttrLogReplica::State::synced);
        EXPECT_EQ(Vel::ptr_cast<Valve>(copy())->pressure(), 3u);
    });
    ofLate->input(takeOutput(late));
    for (int i = 0; late.unansweredWrites() != 0 && i < 10000; ++i) step();
    EXPECT_EQ(late.unansweredWrites(), 0u);
}

// The mutator calls that of another entity, whose observers throw before anything has changed here.
TEST_F(AnsweredWriteTest, ObserverOfAnotherEntityIsTheMutatorsAffair) {
    auto const other = Valve::newEntity("other");
    auto const quiet = notifieeOf(*other, [](Vel::AttributeId) {});
    auto const observer = notifieeOf(*other, [](Vel::AttributeId) { throw std::runtime_error("elsewhere"); });
    Vel::ObserverFailure const observers(*valve);
    try {
        other->levelIs(1);
    } catch (std::exception const&) {
        EXPECT_FALSE(observers.isHandled());
    }
}

// --- enemies ---

class HostileWriteTest : public AnsweredWriteTest {
protected:
    void expectRefused(Bytes const& bytes, std::string const& error) {
        reader->input(bytes);
        EXPECT_EQ(reader->error(), error.c_str());
        EXPECT_EQ(valve->pressure(), 0u);
        disconnect();
        connect();
        answers.clear();
    }
    Vel::EntityId id() { return source.impl().adapter(*valve)->id(); }
    Vel::EntityId tableId() { return source.impl().adapter(*table)->id(); }
};

TEST_F(HostileWriteTest, WrongChangesEndTheConnectionAndChangeNothing) {
    expectRefused(writeMessage(0, 4, id(), [](Out& out) { out << Compact{pressure} << 1u; }),
        "no value attribute is changed by 4");
    expectRefused(
        writeMessage(0, 1, id(), [](Out& out) { out << Compact{pressure}; }), "no value attribute is changed by 1");
    expectRefused(writeMessage(0, 0, id(), [](Out& out) { out << Compact{pressure} << 1u << Vel::U8(0); }),
        "a message with bytes behind its end");
    expectRefused(writeMessage(0, 0, tableId(), [](Out& out) { out << Compact{mark}; }),
        "the attribute log ends within U8 at offset 5: 1 bytes needed, 0 left");
    expectRefused(writeMessage(0, 2, id(), [](Out& out) { out << Compact{pressure} << Vel::U8(2); }),
        "the bool at offset 5 is 2, and neither 0 nor 1");
    expectRefused(writeMessage(0, 2, id(), [](Out& out) { out << Compact{pressure} << true << 1u; }),
        "the attribute log ends within U32 at offset 10: 4 bytes needed, 0 left");
}

TEST_F(HostileWriteTest, ValueIsNeverNotThere) {
    reader->input(writeMessage(0, 2, id(), [](Out& out) { out << Compact{pressure} << false << 1u; }));
    EXPECT_EQ(told(takeOutput(*reader)), Strings{"answer 0 differs 00000000"});
}

TEST_F(HostileWriteTest, WhoTakesNoAnswersIsRefused) {
    Bytes const change = writeMessage(0, 0, id(), [](Out& out) { out << Compact{pressure} << 101u; });
    std::size_t const before = reader->held();
    for (std::size_t i = 0; i < Vel::ReplicaWrites::most; ++i) reader->input(change);
    EXPECT_EQ(reader->error(), "");
    EXPECT_GE(reader->held(), before + Vel::ReplicaWrites::most * 25) << "what waits to be sent is memory";
    reader->input(change);
    EXPECT_EQ(reader->error(), "changes come faster than their answers are taken");
    reader->output(1);
    EXPECT_LE(reader->held(), before + 5000);
}

TEST_F(HostileWriteTest, WrongAnswersEndTheConnection) {
    auto const expectWrong = [&](std::function<void(Out&)> const& body, std::string const& error) {
        writePressure(7);
        replica.input(message(MessageKind::answer, body));
        EXPECT_EQ(replica.error(), error.c_str());
        disconnect();
        EXPECT_EQ(taken().size(), 1u);
        connect();
    };
    expectWrong(
        [](Out& out) { out << Compact{1} << Vel::U8(0); }, "an answer to change 1, which does not wait for one");
    expectWrong([](Out& out) { out << Compact{0} << Vel::U8(6); }, "no answer to a change is 6");
    expectWrong([](Out& out) { out << Compact{0} << Vel::U8(0) << Vel::U8(0); }, "a message with bytes behind its end");
    expectWrong([](Out& out) { out << Compact{0} << Vel::U8(2); },
        "the attribute log ends within the length of a Vel::String at offset 2: 4 bytes needed, 0 left");
    expectWrong([](Out& out) { out << Compact{0} << Vel::U8(3) << true; },
        "the attribute log ends within U32 at offset 3: 4 bytes needed, 0 left");
    replica.input(message(MessageKind::answer, [](Out& out) { out << Compact{0} << Vel::U8(0); }));
    EXPECT_EQ(replica.error(), "an answer to change 0, which does not wait for one");
}

TEST(WriteResultTest, HasAName) {
    EXPECT_STREQ(Vel::writeResultName(WriteResult::done), "done");
    EXPECT_STREQ(Vel::writeResultName(WriteResult::unknown), "unknown");
    EXPECT_STREQ(Vel::writeResultName(static_cast<WriteResult>(99)), "?");
    EXPECT_TRUE((WriteAnswer{WriteResult::observerFailed}.hasChanged()));
    EXPECT_FALSE((WriteAnswer{WriteResult::rejected}.hasChanged()));
}

}  // namespace

}  // namespace StreamTest

VEL_MODULE(StreamWriteTest, 5419aed4ddc86fe4, StreamTest::Valve);
