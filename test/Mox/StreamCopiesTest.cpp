#include "SimulationWorld.h"
#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/stream/internal/StreamProtocol.h"

namespace StreamCopies {

// Its key "k" is answered with what `asked` does.
class Asking : public Vel::EntityOf<Asking> {
public:
    explicit Asking(Vel::String const& name) : EntityOf(name) {}
    Vel::U32 answer(std::string_view) const {
        if (asked) asked();
        return 1;
    }
    void answerIs(Vel::String const& key, Vel::U32) {
        isThere_ = true;
        velNotify<"answer">(key);
    }
    void answerDel(std::string_view) { isThere_ = false; }
    bool answerExists(std::string_view) const { return isThere_; }
    void visitKeys(std::function<void(Vel::String const&)> const& visit) const {
        if (isThere_) visit("k");
    }
    Vel::U32 number() const { return number_; }
    void numberIs(Vel::U32 v) { velSet<&Asking::number_>(v); }

    static constexpr auto description() {
        using T = Asking;
        return Vel::entity("StreamCopies::Asking",
            Vel::values<&T::visitKeys>(Vel::collection<Vel::String, Vel::U32, &T::answer, &T::answerIs, &T::answerDel,
                Vel::none, Vel::none, &T::answerExists>("answer")),
            Vel::attribute<&T::number_, &T::number, &T::numberIs>("number"));
    }
    static inline std::function<void()> asked;

private:
    Vel::U32 number_ = 0;
    bool isThere_ = false;
};

}  // namespace StreamCopies

// Copies where members are shared, move and are replaced, and what their observers are told.
namespace {

using namespace StreamTest;
using Simulation::Trie;
using StreamCopies::Asking;
using Vel::AttributeId;
using Vel::Dir;
using Vel::Ptr;
using Vel::String;
using Vel::U8;
using Vel::NboAttrLog::Compact;

// Carries one byte after the other to the replica until done().
template <class F> void carryUntil(Pair& pair, F done) {
    for (int i = 0; i < 100000 && !done(); ++i) {
        pair.reader->input(takeOutput(pair.replica));
        auto const byte = pair.reader->output(1);
        if (byte.empty() && !pair.reader->wantsOutput()) break;
        Bytes const copy(byte.begin(), byte.end());
        pair.reader->outputTaken(copy.size());
        pair.replica.input(copy);
    }
    ASSERT_TRUE(done());
}

template <class E = Mox::PrefixTrie> Ptr<E> copyOf(Pair const& pair, char const* path) {
    return pair.replica.root() ? Vel::ptr_cast<E>(pair.replica.root()->entity(path)) : nullptr;
}

// --- flows that stop ---

TEST(StoppedFlowTest, CollectionThatWasCutGoesOnWhereItStopped) {
    auto const trie = Mox::prefixTrieFactory("t");
    for (char const* const key : {"a", "b", "c"}) trie->newChildIs(key);
    Pair pair(trie);
    pair.connect();
    carryUntil(pair, [&] { return pair.replica.state() == Vel::AttrLogReplica::State::synced; });
    pair.expectEqual();
}

// --- deletions before a flow begins ---

// A trie "a" that refers to the member "k" of a trie "b"; a copy that has been told of it by "a", and nothing of "b".
class SharedMemberTest : public testing::Test {
protected:
    SharedMemberTest() {
        root->entryIs(a);
        root->entryIs(b);
        a->childIs(b->prefixChildIs("k"));
        pair.connect();
        carryUntil(pair, [&] { return copyOf(pair, "a") && copyOf(pair, "a")->childExists("k"); });
    }

    Ptr<Dir> root = Dir::newEntity("root");
    Ptr<Mox::PrefixTrie> a = Mox::prefixTrieFactory("a");
    Ptr<Mox::PrefixTrie> b = Mox::prefixTrieFactory("b");
    Pair pair{root};
};

TEST_F(SharedMemberTest, DeletionBeforeTheOwnersFlowBeginsIsTold) {
    ASSERT_TRUE(copyOf(pair, "b")->prefixChildExists("k"));
    a->childDel("k");
    b->prefixChildDel("k");
    pair.run();
    EXPECT_EQ(pair.replica.state(), Vel::AttrLogReplica::State::synced);
    pair.expectEqual();
}

TEST_F(SharedMemberTest, AnotherMemberUnderTheKeyBeforeTheOwnersFlowBeginsTakesItsPlace) {
    auto const before = copyOf(pair, "b")->prefixChild("k");
    b->prefixChildDel("k");
    b->prefixChildIs("k");
    pair.run();
    pair.expectEqual();
    EXPECT_NE(copyOf(pair, "b")->prefixChild("k"), before);
}

// --- nesting that is turned round ---

// Makes the reader fall behind, so that what has changed is flagged, in the order of what changed first.
void fallBehind(Pair& pair, Ptr<Mox::PrefixTrie> const& busy) {
    for (int i = 0; i < 1000; ++i) busy->presentIs(!busy->present());
    ASSERT_EQ(pair.source.liveReaders(), 0u);
}

// t > a > x > b, all of them tries, in a copy that has everything.
class NestedTriesTest : public testing::Test {
protected:
    NestedTriesTest() {
        t->adopt(a);
        a->adopt(x);
        x->adopt(b);
        pair.connect();
        pair.run();
    }
    void expectFollows() {
        fallBehind(pair, t);
        pair.run();
        EXPECT_EQ(pair.replica.error(), "");
        pair.expectEqual();
    }

    Ptr<Trie> t = Trie::newEntity("t"), a = Trie::newEntity("a"), x = Trie::newEntity("x"), b = Trie::newEntity("b");
    Pair pair{t, {.logSize = 0}};
};

TEST_F(NestedTriesTest, InnermostThatBecomesTheOutermostIsTakenFromWhereItWas) {
    b->presentIs(true);  // "b" is sent first
    x->prefixChildDel("b");
    t->adopt(b);
    t->prefixChildDel("a");
    b->adopt(a);
    expectFollows();  // t > b > a > x
}

TEST_F(NestedTriesTest, MiddleThatBecomesTheOutermostKeepsWhatIsInIt) {
    b->presentIs(true);
    a->prefixChildDel("x");
    t->adopt(x);
    t->prefixChildDel("a");
    b->adopt(a);
    expectFollows();  // t > x > b > a
}

TEST_F(NestedTriesTest, WholeNestingMayBeTurnedRound) {
    b->presentIs(true);
    x->presentIs(true);
    x->prefixChildDel("b");
    t->adopt(b);
    a->prefixChildDel("x");
    b->adopt(x);
    t->prefixChildDel("a");
    x->adopt(a);
    expectFollows();  // t > b > x > a
}

TEST(NestedDirsTest, NestingThatIsTurnedRoundKeepsWhatIsInIt) {
    auto const root = Dir::newEntity("root");
    auto const a = Dir::newEntity("a"), x = Dir::newEntity("x"), b = Dir::newEntity("b");
    auto const busy = Mox::prefixTrieFactory("busy");
    root->entryIs(a);
    root->entryIs(busy);
    a->entryIs(x);
    x->entryIs(b);
    Pair pair(root, {.logSize = 0});
    pair.connect();
    pair.run();
    b->entryIs(Dir::newEntity("first"));
    x->entryDel("b");
    root->entryIs(b);
    root->entryDel("a");
    b->entryIs(a);
    fallBehind(pair, busy);
    pair.run();
    EXPECT_EQ(pair.replica.error(), "");
    pair.expectEqual();  // root > b > a > x
}

// All of the inner ones are sent before anything else, so that as many members wait.
TEST(NestedTriesManyTest, AnyNumberOfNestingsMayBeTurnedRoundAtOnce) {
    constexpr std::size_t many = 1500;
    auto const t = Trie::newEntity("t");
    std::vector<Ptr<Trie>> outer, inner;
    for (std::size_t i = 0; i < many; ++i) {
        outer.push_back(Trie::newEntity(Vel::format("o%zu", i)));
        inner.push_back(Trie::newEntity(Vel::format("i%zu", i)));
        t->adopt(outer.back());
        outer.back()->adopt(inner.back());
    }
    Pair pair(t, {.logSize = 0});
    pair.connect();
    pair.run();
    for (auto const& trie : inner) trie->presentIs(true);
    for (std::size_t i = 0; i < many; ++i) {
        outer[i]->prefixChildDel(inner[i]->name());
        t->prefixChildDel(outer[i]->name());
        inner[i]->adopt(outer[i]);
        t->adopt(inner[i]);
    }
    fallBehind(pair, t);
    pair.run();
    EXPECT_EQ(pair.replica.error(), "");
    pair.expectEqual();  // t > i > o, each
}

// A source that says that t > a > b.
class CircularSourceTest : public testing::Test {
protected:
    CircularSourceTest() { connect(); }
    void connect() {
        replica.connected();
        takeOutput(replica);
        send(MessageKind::welcome, [](Out& out) { out << Vel::streamVersion << false; });
        send(MessageKind::type, [](Out& out) {
            Vel::VelType const type = Vel::typeOf<Mox::PrefixTrie>();
            out << Compact{0} << String(type.name()) << String(type.moduleName()) << type.moduleFingerprint();
        });
        send(MessageKind::announce, [](Out& out) { out << Compact{1} << Compact{0} << Compact{0} << String("t"); });
        announce(2, 1, "a");
        announce(3, 2, "b");
    }
    void send(MessageKind kind, std::function<void(Out&)> const& body) {
        Vel::NboAttrLog::BufferSm sm;
        body(sm.begin(kind, 0));
        sm.commit();
        replica.input(sm.bytes());
    }
    void announce(U32 id, U32 owner, char const* key) {
        send(MessageKind::announce,
            [&](Out& out) { out << Compact{id} << Compact{0} << Compact{owner} << Compact{262} << String(key); });
    }
    void keySet(U32 owner, char const* key, U32 member) {
        send(MessageKind::keySet,
            [&](Out& out) { out << Compact{owner} << Compact{262} << String(key) << Compact{member}; });
    }

    static Vel::StreamLimits limits() {
        Vel::StreamLimits limits;
        limits.copySize = 4096;
        return limits;
    }
    Ptr<Dir> place = Dir::newEntity("");
    Vel::AttrLogReplica replica{place, "t", {.path = {}, .wantsToWrite = false, .limits = limits()}};
};

TEST_F(CircularSourceTest, EntityWithinItselfIsRefusedAtOnce) {
    keySet(2, "a", 2);
    EXPECT_EQ(replica.error(), "an entity within itself");
}

TEST_F(CircularSourceTest, EntityWithinOneThatItHasIsRefusedWhenThatIsAll) {
    std::string const before = treeOf(*replica.root());
    keySet(3, "a", 2);
    EXPECT_EQ(replica.error(), "");
    EXPECT_EQ(treeOf(*replica.root()), before) << "no circle is ever there";
    send(MessageKind::synced, [](Out&) {});
    EXPECT_EQ(replica.error(), "an entity within itself");
    EXPECT_EQ(replica.state(), Vel::AttrLogReplica::State::syncing);
    EXPECT_EQ(treeOf(*replica.root()), before);
}

TEST_F(CircularSourceTest, WhatWaitsIsForgottenWhenTheSourceTakesItBack) {
    keySet(3, "a", 2);
    send(MessageKind::keyDel, [](Out& out) { out << Compact{3} << Compact{262} << String("a"); });
    send(MessageKind::synced, [](Out&) {});
    EXPECT_EQ(replica.error(), "");
}

// A source that is behind may tell of what is between them later, until it says that all is told.
TEST_F(CircularSourceTest, EntityWithinOneThatItHasIsRefusedWhenThatIsAllAgain) {
    send(MessageKind::synced, [](Out&) {});
    std::string const before = treeOf(*replica.root());
    keySet(3, "a", 2);
    EXPECT_EQ(replica.error(), "");
    EXPECT_EQ(treeOf(*replica.root()), before) << "no circle is ever there";
    send(MessageKind::synced, [](Out&) {});
    EXPECT_EQ(replica.error(), "an entity within itself");
    EXPECT_EQ(treeOf(*replica.root()), before);
}

TEST_F(CircularSourceTest, MemberThatWaitsCountsAsAKey) {
    std::size_t const before = replica.copySize();
    keySet(3, "a", 2);
    EXPECT_EQ(replica.copySize(), before + 160 + 5);
    keySet(3, "a", 2);
    EXPECT_EQ(replica.copySize(), before + 160 + 5) << "once";
    keySet(3, "some other key", 2);
    EXPECT_EQ(replica.copySize(), before + 160 + 18) << "it waits for one place";
    send(MessageKind::gone, [](Out& out) { out << Compact{2}; });
    EXPECT_EQ(replica.copySize(), before) << "the copy still has it";
    EXPECT_EQ(replica.error(), "");
}

TEST_F(CircularSourceTest, MembersThatWaitAreHeldToTheSizeOfACopy) {
    std::string const key(1400, 'x');
    keySet(3, key.c_str(), 2);
    EXPECT_EQ(replica.error(), "");
    keySet(3, (key + "y").c_str(), 1);
    EXPECT_EQ(replica.error(), "a copy of more than 4096 bytes");
}

TEST_F(CircularSourceTest, WhatWaitsIsForgottenWithTheConnection) {
    keySet(3, "a", 2);
    connect();
    send(MessageKind::synced, [](Out&) {});
    EXPECT_EQ(replica.error(), "");
    EXPECT_EQ(replica.root()->entity("a/b")->parent()->name(), "a");
}

// "d" leaves "b" at the sync mark, which lets "b" go into "d" and so leave "a", which lets "a" go into "c".
TEST_F(CircularSourceTest, MemberThatIsPutAtTheSyncMarkMakesRoomForOthers) {
    announce(4, 3, "c");
    announce(5, 3, "d");
    send(MessageKind::keySet, [](Out& out) { out << Compact{1} << Compact{261} << String("d") << Compact{5}; });
    keySet(4, "a", 2);
    keySet(5, "b", 3);
    send(MessageKind::keysAgain, [](Out& out) { out << Compact{3} << Compact{262}; });
    keySet(3, "c", 4);
    send(MessageKind::keysEnd, [](Out& out) { out << Compact{3} << Compact{262}; });
    send(MessageKind::synced, [](Out&) {});
    EXPECT_EQ(replica.error(), "");
    auto const d = Vel::ptr_cast<Mox::PrefixTrie>(replica.root())->child("d");
    EXPECT_TRUE(d && d->entity("b/c/a"));
}

TEST_F(CircularSourceTest, MemberThatMovesCountsOnce) {
    std::size_t const before = replica.copySize();
    keySet(1, "b", 3);
    EXPECT_TRUE(replica.root()->entity("b"));
    EXPECT_EQ(replica.copySize(), before);
}

TEST_F(CircularSourceTest, WhatWaitsForAPlaceInWhatHasGoneIsForgotten) {
    keySet(3, "a", 2);
    send(MessageKind::gone, [](Out& out) { out << Compact{3}; });
    send(MessageKind::synced, [](Out&) {});
    EXPECT_EQ(replica.error(), "");
}

TEST_F(CircularSourceTest, MemberThatIsReferredToMeanwhileGoesOnWaiting) {
    keySet(3, "a", 2);
    send(MessageKind::keySet, [](Out& out) { out << Compact{1} << Compact{261} << String("a") << Compact{2}; });
    send(MessageKind::keyDel, [](Out& out) { out << Compact{2} << Compact{262} << String("b"); });
    EXPECT_EQ(Vel::ptr_cast<Mox::PrefixTrie>(replica.root())->child("a")->parent()->name(), "b");
}

TEST_F(CircularSourceTest, MemberThatWaitedAndWentElsewhereStaysThere) {
    keySet(3, "a", 2);
    announce(4, 1, "c");
    keySet(4, "a", 2);
    send(MessageKind::keyDel, [](Out& out) { out << Compact{2} << Compact{262} << String("b"); });
    send(MessageKind::synced, [](Out&) {});
    EXPECT_EQ(replica.error(), "");
    EXPECT_TRUE(replica.root()->entity("c/a"));
}

// --- what observers are told ---

// One line for each notification: the entity's name, the attribute, the key.
class Heard {
public:
    void of(Vel::Entity const& entity) {
        std::string const name = entity.name().stdString();
        observers_.push_back(Vel::notifieeOf(entity, [this, name](AttributeId id, Vel::NotifieeKey const* key) {
            lines.push_back(name + " " + std::to_string(id) + " " + textOf(key));
        }));
    }
    Strings lines;

private:
    static std::string textOf(Vel::NotifieeKey const* key) {
        if (!key) return "";
        if (key->type() == Vel::typeOf<U8>()) return std::to_string(key->as<U8>());
        return key->as<String>().stdString();
    }
    std::vector<std::unique_ptr<Vel::Notifiee>> observers_;
};

// A directory with tries "from" and "to", a shelf "shelf", a table "table", and a copy that has them.
class ReplacedMemberTest : public testing::Test {
protected:
    ReplacedMemberTest() {
        root->entryIs(busy);
        root->entryIs(from);
        root->entryIs(to);
        root->entryIs(shelf);
        root->entryIs(table);
        to->newChildIs("k");
        for (char const* const item : {"g", "h"}) root->entryIs(Mox::generationEntityFactory(item));
        shelf->itemIs("k", root->entry("g"));
        shelf->rankIs(7, root->entry("g"));
        table->entryIs("k", Entry(1));
        pair.connect();
        pair.run();
        for (char const* const name : {"to", "shelf", "table", "from"}) {
            here.of(*root->entry(name));
            there.of(*pair.replica.root()->entity(name));
        }
        here.of(*root);
        there.of(*pair.replica.root());
    }
    void expectHeard(Strings const& lines) {
        pair.run();
        EXPECT_EQ(here.lines, lines);
        EXPECT_EQ(there.lines, lines);
        pair.expectEqual();
    }

    Ptr<Dir> root = Dir::newEntity("root");
    Ptr<Mox::PrefixTrie> busy = Mox::prefixTrieFactory("busy");
    Ptr<Trie> from = Trie::newEntity("from"), to = Trie::newEntity("to");
    Ptr<Shelf> shelf = Shelf::newEntity("shelf");
    Ptr<ValueTable> table = ValueTable::newEntity("table");
    Pair pair{root, {.logSize = 0}};
    Heard here, there;
};

TEST_F(ReplacedMemberTest, ChildIsToldOnce) {
    to->childIs(from->prefixChildIs("k"));
    expectHeard({"from 262 k", "to 261 k"});
}

TEST_F(ReplacedMemberTest, NewPrefixChildIsToldOnce) {
    to->adopt(Mox::prefixTrieFactory("k"));
    expectHeard({"to 262 k"});
}

TEST_F(ReplacedMemberTest, NewPrefixChildOfADerivedTypeIsToldOnce) {
    to->adopt(Trie::newEntity("k"));
    expectHeard({"to 262 k"});
}

TEST_F(ReplacedMemberTest, PrefixChildThatMovesIsToldOnceInEitherPlace) {
    auto const member = from->prefixChildIs("k");
    from->prefixChildDel("k");
    to->adopt(member);
    expectHeard({"from 262 k", "from 262 k", "to 262 k"});
}

TEST_F(ReplacedMemberTest, MemberOfAHashMapIsToldOnce) {
    shelf->itemIs("k", root->entry("h"));
    expectHeard({"shelf 258 k"});
}

TEST_F(ReplacedMemberTest, MemberOfAnOrderedMapIsToldOnce) {
    shelf->rankIs(7, root->entry("h"));
    expectHeard({"shelf 259 7"});
}

TEST_F(ReplacedMemberTest, ValueIsToldOnce) {
    table->entryIs("k", Entry(2));
    expectHeard({"table 259 k"});
}

TEST_F(ReplacedMemberTest, EntryOfADirectoryIsToldAsItWasReplaced) {
    root->entryDel("g");
    root->entryIs(Mox::generationEntityFactory("g"));
    expectHeard({"root 258 g", "root 258 g"});
}

TEST_F(ReplacedMemberTest, MemberThatAnotherCollectionBringsAlongIsToldOnce) {
    to->prefixChildDel("k");
    to->newChildIs("k");
    fallBehind(pair, busy);
    pair.run();
    EXPECT_EQ(there.lines, (Strings{"to 262 k", "to 261 k"}));
    pair.expectEqual();
}

TEST_F(ReplacedMemberTest, ReaderThatIsBehindIsToldOnceHoweverOften) {
    for (int i = 0; i < 3; ++i) {
        to->childIs(from->prefixChildIs("k"));
        from->prefixChildDel("k");
        to->adopt(Mox::prefixTrieFactory("k"));
        shelf->itemIs("k", root->entry(i % 2 ? "g" : "h"));
        shelf->rankIs(7, root->entry(i % 2 ? "g" : "h"));
    }
    fallBehind(pair, busy);
    pair.run();
    auto const told = [&](char const* line) { return std::count(there.lines.begin(), there.lines.end(), line); };
    EXPECT_EQ(told("to 261 k"), 1);
    EXPECT_EQ(told("to 262 k"), 2) << "the deletion, since the last one is another one, and what came";
    EXPECT_EQ(told("shelf 258 k"), 1);
    EXPECT_EQ(told("shelf 259 7"), 1);
    pair.expectEqual();
}

// --- nothing is applied to what is being written out ---

// A copy that is itself served, and asks for what it is sent next while it is written out.
void expectDeathWhileWritten(std::function<void(Asking&)> const& change) {
    auto const served = Asking::newEntity("served");
    served->answerIs("k", 1);
    Pair pair(served);
    pair.connect();
    pair.run();
    change(*served);
    Bytes const next = takeOutput(*pair.reader);
    Pair onward(pair.replica.root());
    onward.connect();
    EXPECT_DEATH(
        {
            Asking::asked = [&] { pair.replica.input(next); };
            onward.run();
        },
        "!_isActive");
}

TEST(ReplicaGuardDeathTest, NoValueIsAppliedToWhatIsBeingWritten) {
    expectDeathWhileWritten([](Asking& served) { served.numberIs(5); });
}

TEST(ReplicaGuardDeathTest, NoKeyIsAppliedToWhatIsBeingWritten) {
    expectDeathWhileWritten([](Asking& served) { served.answerIs("k", 2); });
}

TEST(ReplicaGuardDeathTest, NoDeletionIsAppliedToWhatIsBeingWritten) {
    expectDeathWhileWritten([](Asking& served) {
        served.answerDel("k");
        served.answerIs("k", 3);
        served.answerDel("k");
    });
}

}  // namespace

VEL_MODULE(StreamCopies, ea5a015e47466edf, StreamCopies::Asking);
