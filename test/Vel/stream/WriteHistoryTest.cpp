#include "Vel/stream/WriteHistory.h"
#include "StreamTools.h"
#include "Tank.h"
#include "ValueTable.h"
#include "Vel/base/Exception.h"
#include "Vel/base/System.h"

// Who has asked for which change.
namespace StreamTest {

namespace {

using Vel::AttributeId;
using Vel::HistoryList;
using Vel::Ptr;
using Vel::String;
using Vel::ValueRef;
using Vel::WriteHistory;
using Vel::NboAttrLog::Compact;

// The time is what a test says.
class FixedTime : public Vel::SystemCalls {
public:
    double currentTime() override { return now; }
    double now = 1000;
};

// A reader of a source, and its copy.
class Author {
public:
    Author(Vel::AttrLogSource& source, String const& name, bool mayWrite = true)
        : reader_(source.newReader(mayWrite, name)) {
        replica.connected();
        run();
    }
    ~Author() {
        reader_->closed("");
        replica.closed("");
    }
    void run() {
        while (replica.wantsOutput() || reader_->wantsOutput()) {
            reader_->input(takeOutput(replica));
            replica.input(takeOutput(*reader_));
        }
    }
    Vel::StreamPeer& reader() { return *reader_; }
    Ptr<Entity> entry(char const* name) { return Vel::ptr_cast<Vel::Dir>(replica.root())->entry(name); }

    Vel::AttrLogReplica replica{Vel::Dir::newEntity(""), "root", {.path = {}, .wantsToWrite = true}};

private:
    std::unique_ptr<Vel::StreamPeer> reader_;
};

class WriteHistoryTest : public testing::Test {
protected:
    WriteHistoryTest() {
        root->entryIs(tank);
        root->entryIs(table);
        before = Vel::System::callsIs(&time);
    }
    ~WriteHistoryTest() override { Vel::System::callsIs(before); }

    // "alice /tank low 0 -> 7 done", of those that were not taken yet.
    Strings taken() {
        Strings texts;
        for (next = std::max(next, history->begin()); next < history->end(); ++next)
            if (history->has(next)) texts.push_back(textOf(history->change(next)));
        return texts;
    }
    static std::string textOf(WriteHistory::Change const& c) {
        std::string text = (c.author + " " + c.path + " " + c.attribute).stdString();
        if (!c.key.empty()) text += "[" + c.key.stdString() + "]";
        text += " " + c.before.stdString() + " -> " + c.wanted.stdString();
        text += std::string(" ") + Vel::writeResultName(c.result);
        if (!c.text.empty()) text += ": " + c.text.stdString();
        return text;
    }

    FixedTime time;
    Vel::SystemCalls* before = nullptr;
    Ptr<Vel::Dir> root = Vel::Dir::newEntity("root");
    Ptr<Tank> tank = Tank::newEntity("tank");
    Ptr<ValueTable> table = ValueTable::newEntity("table");
    std::shared_ptr<WriteHistory> history = std::make_shared<WriteHistory>(8);
    Vel::AttrLogSource source{root, {.mayWrite = true, .limits = {}, .chunkSize = 0, .history = history}};
    Vel::U64 next = 0;
};

TEST_F(WriteHistoryTest, KeepsWhoAskedForWhatAndTheAnswer) {
    Author alice(source, "alice");
    alice.replica.write(*alice.entry("tank"), low, U32(7));
    alice.run();
    time.now = 2000;
    alice.replica.write(*alice.entry("tank"), low, U32(101));
    U32 const six = 6;
    alice.replica.writeIf(*alice.entry("tank"), low, six, U32(8));
    alice.run();
    EXPECT_EQ(history->change(0).time, 1000);
    EXPECT_EQ(history->change(1).time, 2000);
    EXPECT_EQ(taken(), (Strings{"alice /tank low 0 -> 7 done", "alice /tank low 7 -> 101 rejected: too low",
                           "alice /tank low 7 -> 8 differs"}));
}

TEST_F(WriteHistoryTest, EachConnectionIsItsOwnAuthor) {
    Author alice(source, "alice"), bob(source, "bob");
    alice.replica.write(*alice.entry("tank"), low, U32(1));
    bob.replica.write(*bob.entry("tank"), low, U32(2));
    bob.run();
    alice.run();
    bob.replica.write(*bob.entry("tank"), low, U32(3));
    bob.run();
    EXPECT_EQ(
        taken(), (Strings{"bob /tank low 0 -> 2 done", "alice /tank low 2 -> 1 done", "bob /tank low 1 -> 3 done"}));
}

// An observer may run the transport, which brings changes of others.
TEST_F(WriteHistoryTest, ChangeWithinAChangeHasItsOwnAuthor) {
    Author alice(source, "alice"), bob(source, "bob");
    bool isFirst = true;
    auto const observer = Vel::notifieeOf(*tank, [&](AttributeId) {
        if (!std::exchange(isFirst, false)) return;
        bob.replica.write(*bob.entry("tank"), high, U32(9));
        bob.reader().input(takeOutput(bob.replica));
        EXPECT_EQ(taken(), Strings{"bob /tank high 0 -> 9 done"}) << "the other one is not answered yet";
        next = 0;
    });
    alice.replica.write(*alice.entry("tank"), low, U32(1));
    alice.replica.write(*alice.entry("tank"), low, U32(2));
    alice.run();
    EXPECT_EQ(
        taken(), (Strings{"alice /tank low 0 -> 1 done", "bob /tank high 0 -> 9 done", "alice /tank low 1 -> 2 done"}));
}

TEST_F(WriteHistoryTest, KeepsKeysGroupsAndCalls) {
    Author alice(source, "alice");
    auto const t = alice.entry("table"), k = alice.entry("tank");
    alice.replica.writeKey(*t, ValueTable::markAttribute, Vel::U8(7), U32(70));
    alice.replica.writeKey(*t, ValueTable::markAttribute, Vel::U8(7), U32(71));
    alice.replica.deleteKey(*t, ValueTable::markAttribute, Vel::U8(7));
    alice.replica.writeTogether(*k, {{low, U32(3)}, {label, String("l")}});
    alice.replica.writeTogether(*k, {{high, U32(3)}, {low, U32(101)}});
    alice.replica.call(*k, Vel::attributeId<Tank>("limitsIs"), {U32(4), U32(9)});
    alice.run();
    EXPECT_EQ(taken(), (Strings{"alice /table mark[7]  -> 70 done", "alice /table mark[7] 70 -> 71 done",
                           "alice /table mark[7] 71 ->  done", "alice /tank low 0 -> 3 done",
                           "alice /tank label '' -> 'l' done", "alice /tank high 0 -> 3 rejected: too low",
                           "alice /tank low 3 -> 101 rejected: too low", "alice /tank limitsIs  -> 4, 9 done"}));
}

// They are told so, but cannot push out what others have changed.
TEST_F(WriteHistoryTest, ReadersThatMayNotWriteLeaveItAsItIs) {
    Author alice(source, "alice"), eve(source, "eve", false);
    alice.replica.write(*alice.entry("tank"), low, U32(7));
    alice.run();
    for (U32 number = 0; number < 8; ++number)
        eve.reader().input(
            writeMessage(number, 0, source.impl().adapter(*tank)->id(), [](Out& out) { out << Compact{low} << 8u; }));
    EXPECT_EQ(taken(), Strings{"alice /tank low 0 -> 7 done"});
    Strings const sent = told(takeOutput(eve.reader()));
    EXPECT_EQ(
        std::count(sent.begin(), sent.end(), "answer 7 read-only: /tank is mounted read-only and takes no changes"), 1);
}

// The change is made, so its answer is sent, whatever the one who is told does.
TEST_F(WriteHistoryTest, WhatTheOneThatIsToldThrowsHarmsNobody) {
    Author alice(source, "alice");
    unsigned calls = 0;
    history->onChangeIs([&](HistoryList, Vel::U64) {
        ++calls;
        throw Vel::RangeException("no");
    });
    Strings answers;
    alice.replica.write(*alice.entry("tank"), low, U32(7),
        [&](Vel::WriteAnswer const& answer) { answers.push_back(Vel::writeResultName(answer.result)); });
    alice.run();
    EXPECT_EQ(answers, Strings{"done"});
    EXPECT_EQ(alice.reader().error(), "");
    EXPECT_EQ(calls, 1u);
    history->onChangeIs(nullptr);
}

TEST_F(WriteHistoryTest, OnlyTheNewestAreKept) {
    Author alice(source, "alice");
    for (U32 i = 1; i <= 20; ++i) alice.replica.write(*alice.entry("tank"), low, i);
    alice.run();
    EXPECT_EQ(history->begin(), 12u);
    EXPECT_EQ(history->end(), 20u);
    EXPECT_FALSE(history->has(11));
    EXPECT_TRUE(history->has(12));
    EXPECT_FALSE(history->has(20));
    EXPECT_EQ(taken().front(), "alice /tank low 12 -> 13 done");
}

TEST_F(WriteHistoryTest, OfLongValuesTheSizeIsKept) {
    Author alice(source, "alice");
    alice.replica.write(*alice.entry("tank"), label, String(std::string(1020, 'x')));
    alice.replica.write(*alice.entry("tank"), label, String(std::string(1021, 'x')));
    alice.run();
    EXPECT_EQ(history->change(0).wanted.length(), WriteHistory::longestText);
    EXPECT_EQ(history->change(0).wanted.view().substr(0, 4), "'xxx");
    EXPECT_EQ(history->change(1).before, history->change(0).wanted);
    EXPECT_EQ(history->change(1).wanted, "(1025 bytes)");
}

TEST_F(WriteHistoryTest, TextsOfPeersAreCleaned) {
    Author eve(source, "eve\x1b[31m");
    eve.replica.write(*eve.entry("tank"), label, String("\x1b[31m\xc2\x9b"));
    eve.run();
    EXPECT_EQ(taken(), Strings{"eve\\x1b[31m /tank label '' -> '\\x1b[31m\\xc2\\x9b' done"});
}

TEST_F(WriteHistoryTest, PathIsThatOfTheTimeHoweverDeep) {
    Ptr<Vel::Dir> at = root;
    std::string path;
    for (int i = 0; i < 12; ++i) {
        auto const below = Vel::Dir::newEntity(Vel::format("d%d", i));
        at->entryIs(below);
        at = below;
        path += "/d" + std::to_string(i);
        if (i == 6 || i == 7 || i == 11) at->entryIs(Tank::newEntity("deep"));
    }
    Author alice(source, "alice");
    auto const write = [&](std::string const& where) {
        auto const copy = alice.replica.root()->entity(Vel::EntityUriPath(String(where.substr(1))));
        ASSERT_TRUE(copy) << where;
        alice.replica.write(*copy, low, U32(1));
        alice.run();
        EXPECT_EQ(history->change(history->end() - 1).path, String(where));
    };
    write("/d0/d1/d2/d3/d4/d5/d6/deep");
    write("/d0/d1/d2/d3/d4/d5/d6/d7/deep");
    write(path + "/deep");
    root->entryDel("tank");
    EXPECT_EQ(history->change(0).path, "/d0/d1/d2/d3/d4/d5/d6/deep");
}

TEST_F(WriteHistoryTest, TellsOfEachChangeWhenItIsAnswered) {
    Author alice(source, "alice");
    std::vector<Vel::U64> heard;
    history->onChangeIs([&](HistoryList, Vel::U64 number) {
        EXPECT_TRUE(history->has(number));
        heard.push_back(number);
    });
    alice.replica.writeTogether(*alice.entry("tank"), {{low, U32(3)}, {high, U32(4)}});
    alice.replica.write(*alice.entry("tank"), low, U32(4));
    alice.run();
    EXPECT_EQ(heard, (std::vector<Vel::U64>{0, 1, 2}));
}

// --- what the process changes itself ---

class OwnHistoryTest : public WriteHistoryTest {
protected:
    OwnHistoryTest() {
        history = std::make_shared<WriteHistory>(WriteHistory::Sizes{4, 8, 3});
        served.emplace(root, Vel::AttrLogSource::Options{.mayWrite = true, .limits = {}, .history = history});
        alice.emplace(*served, "alice");
    }
    ~OwnHistoryTest() override { alice.reset(); }

    Strings of(HistoryList list) const {
        Strings texts;
        for (Vel::U64 number = history->begin(list); number < history->end(list); ++number)
            if (history->has(number, list)) texts.push_back(textOf(history->change(number, list)));
        return texts;
    }
    Strings own() const { return of(HistoryList::own); }
    Strings last() const { return of(HistoryList::last); }
    void aliceWrites(AttributeId attribute, U32 value) {
        alice->replica.write(*alice->entry("tank"), attribute, value);
        alice->run();
    }

    std::optional<Vel::AttrLogSource> served;
    std::optional<Author> alice;
};

TEST_F(OwnHistoryTest, KeepsWhatTheProcessChanges) {
    time.now = 3000;
    tank->lowIs(3);
    tank->labelIs("x");
    table->markIs(7, 70);
    table->markDel(7);
    EXPECT_EQ(own(), (Strings{"this process /tank low  -> 3 done", "this process /tank label  -> 'x' done",
                         "this process /table mark[7]  -> 70 done", "this process /table mark[7]  ->  done"}));
    EXPECT_EQ(history->change(0, HistoryList::own).time, 3000);
    EXPECT_EQ(taken(), Strings{}) << "nobody has asked for it";
}

TEST_F(OwnHistoryTest, OfEntitiesThePathIsKept) {
    auto const other = Tank::newEntity("other");
    root->entryIs(other);
    tank->nextIs(other);
    tank->nextIs(nullptr);
    root->entryDel("other");
    EXPECT_EQ(
        own(), (Strings{"this process root entry['other']  -> /other done", "this process /tank next  -> /other done",
                   "this process /tank next  ->  done", "this process root entry['other']  ->  done"}));
}

TEST_F(OwnHistoryTest, EachNotificationIsAChangeAlsoOfValuesThatChangeTogether) {
    tank->lowIs(1);
    tank->lowIs(2);
    tank->lowIs(2);
    tank->labelIs("full");
    EXPECT_EQ(own(), (Strings{"this process /tank low  -> 1 done", "this process /tank low  -> 2 done",
                         "this process /tank low  -> 5 done", "this process /tank high  -> 6 done"}));
}

TEST_F(OwnHistoryTest, WhatAReaderAskedForIsNotTheProcesss) {
    aliceWrites(low, 7);
    alice->replica.writeTogether(*alice->entry("tank"), {{low, U32(8)}, {high, U32(9)}});
    alice->replica.writeKey(*alice->entry("table"), ValueTable::markAttribute, Vel::U8(7), U32(70));
    alice->run();
    EXPECT_EQ(own(), Strings{});
    EXPECT_EQ(taken().size(), 4u);
}

TEST_F(OwnHistoryTest, WhatFollowsFromARequestIsTheProcessesAndNamesTheReader) {
    auto const observer = Vel::notifieeOf(*tank, [&](AttributeId id) {
        if (id == low && tank->low() == 7) tank->lowIs(5);
        if (id == high) table->markIs(1, tank->high());
    });
    aliceWrites(low, 7);
    aliceWrites(high, 9);
    alice->replica.call(*alice->entry("tank"), Vel::attributeId<Tank>("clear"), {});
    alice->run();
    std::string const text = ": while it handled what alice has asked for";
    EXPECT_EQ(
        own(), (Strings{"this process /tank low  -> 5 done" + text, "this process /table mark[1]  -> 9 done" + text,
                   "this process /tank low  -> 0 done" + text, "this process /tank high  -> 0 done" + text,
                   "this process /table mark[1]  -> 0 done" + text}));
    tank->lowIs(6);
    EXPECT_EQ(own().back(), "this process /tank low  -> 6 done");
}

TEST_F(OwnHistoryTest, OwnChangesDoNotPushOutThoseOfReaders) {
    aliceWrites(low, 7);
    for (U32 i = 0; i < 100; ++i) tank->highIs(i + 1);
    EXPECT_EQ(taken(), Strings{"alice /tank low 0 -> 7 done"});
    EXPECT_EQ(own().size(), 8u);
    EXPECT_EQ(own().front(), "this process /tank high  -> 93 done");
}

TEST_F(OwnHistoryTest, LastChangeOfAnAttributeStaysHoweverManyFollow) {
    aliceWrites(low, 7);
    for (U32 i = 0; i < 100; ++i) aliceWrites(high, i + 1);
    for (U32 i = 0; i < 100; ++i) tank->countIs(i + 1);
    EXPECT_EQ(last(), (Strings{"alice /tank low 0 -> 7 done", "alice /tank high 99 -> 100 done",
                          "this process /tank count  -> 100 done"}));
    tank->lowIs(8);
    EXPECT_EQ(last().front(), "this process /tank low  -> 8 done");
}

// What was rejected has not changed the attribute, and neither has a value that it had already.
TEST_F(OwnHistoryTest, LastChangeIsOneThatWasMade) {
    aliceWrites(low, 7);
    tank->lowIs(8);
    aliceWrites(low, 101);
    aliceWrites(low, 8);
    EXPECT_EQ(last(), Strings{"this process /tank low  -> 8 done"});
    aliceWrites(low, 102);
    EXPECT_EQ(last(), Strings{"alice /tank low 8 -> 102 rejected: set, and yet not"})
        << "its mutator has set it, though";
}

TEST_F(OwnHistoryTest, LastChangeIsTheObserversIfThatHasChangedTheValueAgain) {
    auto const observer = Vel::notifieeOf(*tank, [&](AttributeId) { tank->lowIs(5); });
    aliceWrites(low, 7);
    EXPECT_EQ(last(), Strings{"this process /tank low  -> 5 done: while it handled what alice has asked for"});
}

TEST_F(OwnHistoryTest, OfTooManyAttributesTheOneThatHasChangedLeastRecentlyIsDropped) {
    tank->lowIs(1);
    tank->highIs(2);
    tank->countIs(3);
    tank->lowIs(4);
    tank->labelIs("x");
    EXPECT_EQ(last(), (Strings{"this process /tank low  -> 4 done", "this process /tank label  -> 'x' done",
                          "this process /tank count  -> 3 done"}));
}

TEST_F(OwnHistoryTest, AttributesAreThoseOfAPath) {
    auto const first = Tank::newEntity("t"), second = Tank::newEntity("t");
    auto const dir = Vel::Dir::newEntity("d");
    dir->entryIs(first);
    root->entryIs(dir);
    first->lowIs(1);
    tank->lowIs(2);
    dir->entryDel("t");
    dir->entryIs(second);
    second->lowIs(3);
    EXPECT_EQ(last(), (Strings{"this process /d entry['t']  -> /d/t done", "this process /d/t low  -> 3 done",
                          "this process /tank low  -> 2 done"}));
}

// An observer of the history that changes what is served would never come to an end.
TEST_F(OwnHistoryTest, WhatIsDoneAboutAChangeIsNotNoted) {
    std::vector<std::pair<HistoryList, Vel::U64>> heard;
    history->onChangeIs([&](HistoryList list, Vel::U64 number) {
        heard.emplace_back(list, number);
        tank->countIs(tank->count() + 1);
    });
    tank->lowIs(1);
    EXPECT_EQ(own(), Strings{"this process /tank low  -> 1 done"});
    EXPECT_EQ(heard, (decltype(heard){{HistoryList::own, 0}, {HistoryList::last, 0}}));
    history->onChangeIs(nullptr);
}

TEST_F(OwnHistoryTest, ObserverOfTheHistoryMayLetTheEntityGo) {
    history->onChangeIs([&](HistoryList, Vel::U64) {
        root->entryDel("tank");
        tank = nullptr;
    });
    tank->lowIs(1);
    history->onChangeIs(nullptr);
    alice->run();
    EXPECT_FALSE(alice->entry("tank"));
}

TEST_F(OwnHistoryTest, OfWhatNobodyReadsNothingIsKnown) {
    alice.reset();
    Vel::AttrLogSource unread(Tank::newEntity("unread"), {.mayWrite = false, .limits = {}, .history = history});
    Vel::ptr_cast<Tank>(Ptr<Entity>(&unread.root()))->lowIs(1);
    EXPECT_EQ(own(), Strings{});
}

TEST_F(WriteHistoryTest, WithoutAWishForThemOwnChangesAreNotKept) {
    Author alice(source, "alice");
    tank->lowIs(1);
    EXPECT_EQ(history->end(HistoryList::own), 0u);
    EXPECT_EQ(history->end(HistoryList::last), 0u);
    EXPECT_FALSE(history->wantsNotifications());
}

}  // namespace

}  // namespace StreamTest
