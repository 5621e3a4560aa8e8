#include "Vel/stream/StreamRights.h"
#include "Room.h"
#include "Vel/stream/WriteHistory.h"

#include <sstream>

// What may not be read is not there.
namespace StreamTest {
namespace {

using Vel::Access;
using Vel::AttrLogServer;
using Vel::Ptr;
using Vel::String;
using Vel::NboAttrLog::Compact;

constexpr auto text = Vel::attributeId<Room>("text");
constexpr auto mark = Vel::attributeId<Room>("mark");
constexpr auto greet = Vel::attributeId<Room>("greet");

// The rooms "a", "a/b", "a/b/c", "s", "s/o" and "s/o/x". Each has its path as its text, and "SECRET" if it is in "s".
class StreamRightsTest : public testing::Test {
protected:
    StreamRightsTest() {
        for (char const* const path : {"a", "a/b", "a/b/c", "s", "s/o", "s/o/x"}) {
            Ptr<Room> at = root;
            std::stringstream names(path);
            for (std::string name; std::getline(names, name, '/');) at = at->roomIs(String(name));
            at->textIs(path[0] == 's' ? String("SECRET ") + path : String(path));
        }
    }
    Ptr<Room> at(char const* path) const { return Vel::ptr_cast<Room>(root->entity(path)); }
    Vel::EntityId idOf(Ptr<Room> const& room) {  // as somebody knows it who may read everything
        return server.source("")->impl().demuxer().adapter(*room)->id();
    }
    // Everything but "s".
    Rights const few = rightsOf({{"", Access::all}, {"s", Access::none}});

    Ptr<Room> root = Room::newEntity("root");
    AttrLogServer server{root, {.mayWrite = false}};
};

// --- the matrix ---

Bytes writeTo(Vel::EntityId id) {
    return writeMessage(0, 0, id, [](Out& out) { out << Compact{text} << String("new"); });
}
Bytes writeKeyTo(Vel::EntityId id) {
    return writeMessage(0, 0, id, [](Out& out) { out << Compact{mark} << String("k") << String("new"); });
}
Bytes writeValuesTo(Vel::EntityId id) {
    return message(MessageKind::writeValues,
        [&](Out& out) { out << Compact{0} << Compact{id} << Vel::U8(0) << Compact{text} << String("new"); });
}
Bytes expectIn(Vel::EntityId id) {
    return writeMessage(0, 2, id, [](Out& out) { out << Compact{text} << true << String("?") << String("new"); });
}
Bytes callOf(Vel::EntityId id) {
    return message(
        MessageKind::call, [&](Out& out) { out << Compact{0} << Compact{id} << Compact{greet} << String("you"); });
}

Access accessOf(std::string const& text) {
    Access access = Access::none;
    for (char const c : text)
        access = access | (c == 'r' ? Access::read : c == 'w' ? Access::write : c == 'c' ? Access::call : Access::none);
    return access;
}

// "=r,s=-,s/o=rw"
Rights rightsOfText(std::string const& text) {
    PathRights::Rules rules;
    std::stringstream in(text);
    for (std::string rule; std::getline(in, rule, ',');) {
        auto const equals = rule.find('=');
        rules[rule.substr(0, equals)] = accessOf(rule.substr(equals + 1));
    }
    return rightsOf(rules);
}

// The first word of an answer.
std::string wordOf(std::string const& answer) { return answer.substr(0, answer.find_first_of(": ")); }

// What becomes of each operation: whether the path can be asked for; whether a reader of the root sees the entity;
// a write, a key, values together, an expected value and a call by the reader of the root, who knows the id.
struct Row {
    char const* rules;
    char const* path;
    char const* outcome;
};
constexpr Row rows[] = {
    // rules                       path     path  copy  write     key       values    expects   call
    {"=r", "a", "yes yes read-only read-only read-only read-only read-only"},
    {"=r", "a/b/c", "yes yes read-only read-only read-only read-only read-only"},
    {"=w", "a/b/c", "yes yes done done done differs read-only"},
    {"=c", "a/b/c", "yes yes read-only read-only read-only read-only done"},
    {"=wc", "a/b/c", "yes yes done done done differs done"},
    {"=wc", "", "yes yes done done done differs done"},
    {"=r", "", "yes yes read-only read-only read-only read-only read-only"},
    {"=wc,a=-", "a", "no no gone gone gone gone gone"},
    {"=wc,a=-", "a/b", "no no gone gone gone gone gone"},
    {"=wc,a=-", "a/b/c", "no no gone gone gone gone gone"},
    {"=wc,a=-", "s", "yes yes done done done differs done"},
    {"=wc,a/b=-", "a", "yes yes done done done differs done"},
    {"=wc,a/b=-", "a/b", "no no gone gone gone gone gone"},
    {"=wc,a/b=-", "a/b/c", "no no gone gone gone gone gone"},
    {"=wc,a/b=r", "a", "yes yes done done done differs done"},
    {"=wc,a/b=r", "a/b", "yes yes read-only read-only read-only read-only read-only"},
    {"=wc,a/b=r", "a/b/c", "yes yes read-only read-only read-only read-only read-only"},
    {"=r,a/b=w", "a", "yes yes read-only read-only read-only read-only read-only"},
    {"=r,a/b=w", "a/b/c", "yes yes done done done differs read-only"},
    {"=r,a/b=c", "a/b", "yes yes read-only read-only read-only read-only done"},
    {"=r,a=-,a/b=w", "a/b", "yes no gone gone gone gone gone"},
    {"=r,a=-,a/b=w", "a/b/c", "yes no gone gone gone gone gone"},
    {"=r,a=-,a/b=w,a/b/c=-", "a/b", "yes no gone gone gone gone gone"},
    {"=r,a=-,a/b=w,a/b/c=-", "a/b/c", "no no gone gone gone gone gone"},
    {"=r,s=-", "s", "no no gone gone gone gone gone"},
    {"=r,s=-", "s/o/x", "no no gone gone gone gone gone"},
    {"=r,a/bb=-", "a/b", "yes yes read-only read-only read-only read-only read-only"},
    {"=r,a/b/c=w", "a/b", "yes yes read-only read-only read-only read-only read-only"},
    {"=r,a/b/c=w", "a/b/c", "yes yes done done done differs read-only"},
    {"=r,a/b/c=-", "a/b/c", "no no gone gone gone gone gone"},
};

class StreamRightsRowsTest : public StreamRightsTest, public testing::WithParamInterface<Row> {
protected:
    std::string outcome(Row const& row) {
        Visitor all(server, nullptr);  // so that everything has an id
        Rights const rights = rightsOfText(row.rules);
        Visitor visitor(server, rights);
        Vel::EntityId const id = idOf(at(row.path));
        std::string outcome = Visitor(server, rights, row.path).root() ? "yes" : "no";
        outcome += visitor.at(row.path) ? " yes" : " no";
        for (auto const& request : {writeTo(id), writeKeyTo(id), writeValuesTo(id), expectIn(id), callOf(id)})
            outcome += " " + wordOf(visitor.ask(request));
        return outcome;
    }
};

TEST_P(StreamRightsRowsTest, OutcomeOfEachOperation) { EXPECT_EQ(outcome(GetParam()), GetParam().outcome); }

INSTANTIATE_TEST_SUITE_P(Rows, StreamRightsRowsTest, testing::ValuesIn(rows));

// --- what is not there ---

TEST_F(StreamRightsTest, HiddenEntityIsNotSentByAnyWay) {
    root->nextIs(at("s"));
    at("a")->nextIs(at("s/o"));
    at("a")->linkIs("SECRET key", at("s/o/x"));
    at("a")->linkIs("open key", at("a/b"));
    Visitor const all(server, nullptr);
    Visitor const visitor(server, few);
    EXPECT_FALSE(visitor.heard("SECRET"));
    EXPECT_TRUE(all.heard("SECRET"));
    EXPECT_TRUE(visitor.at("a/b/c"));
    EXPECT_FALSE(visitor.root()->next());
    EXPECT_FALSE(visitor.at("a")->next());
    EXPECT_FALSE(visitor.at("a")->link("SECRET key"));
    EXPECT_EQ(visitor.at("a")->link("open key"), visitor.at("a/b"));
    EXPECT_EQ(visitor.replica.entities(), 4u);
}

TEST_F(StreamRightsTest, PathOfAHiddenEntityIsRefusedLikeThatOfNone) {
    for (char const* const path : {"s", "s/o", "s/none", "none"}) {
        Visitor const visitor(server, few, path);
        EXPECT_EQ(visitor.replica.error(), "refused: there is nothing at '" + std::string(path) + "'");
        EXPECT_EQ(visitor.replica.fault(), Vel::StreamFault::nothingThere);
    }
    EXPECT_EQ(server.sources(), 0u);
}

TEST_F(StreamRightsTest, IdOfAHiddenEntityIsAnsweredLikeOneThatWasNeverGiven) {
    Visitor all(server, nullptr);
    Visitor visitor(server, few);
    Vel::EntityId const hidden = idOf(at("s/o"));
    for (auto* const request : {writeTo, writeKeyTo, writeValuesTo, expectIn, callOf}) {
        std::string const none = visitor.ask(request(1'000'000));
        EXPECT_EQ(visitor.ask(request(hidden)), none);
        EXPECT_EQ(none, "gone: the entity has gone");
    }
    EXPECT_EQ(at("s/o")->text(), "SECRET s/o");
    EXPECT_FALSE(at("s/o")->markExists("k"));
}

TEST_F(StreamRightsTest, MalformedMessageAboutAHiddenEntityIsAnsweredLikeThatAboutNone) {
    Visitor all(server, nullptr);
    Visitor visitor(server, few);
    auto const broken = [&](Vel::EntityId id) { return writeMessage(0, 7, id, [](Out& out) { out << Compact{99}; }); };
    EXPECT_EQ(visitor.ask(broken(idOf(at("s")))), "gone: the entity has gone");
    EXPECT_EQ(visitor.ask(broken(1'000'000)), "gone: the entity has gone");
    EXPECT_FALSE(visitor.reader->isClosing());
}

TEST_F(StreamRightsTest, RefusedWriteDoesNotNameWhatLeadsToTheEntity) {
    Visitor visitor(server, rightsOf({{"", Access::none}, {"s/o", Access::read}, {"a", Access::write}}), "s/o");
    EXPECT_EQ(
        visitor.ask(writeTo(idOf(at("s/o")))), "read-only: StreamTest::Room takes no such change from this reader");
}

TEST_F(StreamRightsTest, ReaderIsToldWhetherItMayChangeAnything) {
    EXPECT_FALSE(Visitor(server, rightsOf({{"", Access::read}})).replica.mayWrite());
    EXPECT_TRUE(Visitor(server, rightsOf({{"", Access::read}, {"a", Access::call}})).replica.mayWrite());
    EXPECT_FALSE(Visitor(server, nullptr).replica.mayWrite());
}

TEST_F(StreamRightsTest, ReadersWithTheSameRightsShareASource) {
    Visitor const one(server, few);
    Visitor const two(server, few);
    EXPECT_EQ(server.sources(), 1u);
    Visitor const other(server, rightsOf({{"", Access::all}, {"s", Access::none}}));
    EXPECT_EQ(server.sources(), 2u);
    Visitor const all(server, nullptr);
    EXPECT_EQ(server.sources(), 3u);
    EXPECT_EQ(server.source("", few)->readers(), 2u);
}

// --- changes ---

TEST_F(StreamRightsTest, LiveReadersHearOfNothingHidden) {
    Visitor all(server, nullptr);
    Visitor visitor(server, few);
    at("s")->textIs("SECRET 2");
    at("s")->roomIs("SECRET room");
    at("a")->linkIs("SECRET link", at("s"));
    at("a")->linkDel("SECRET link");
    at("a")->nextIs(at("s"));
    root->linkIs("SECRET link", at("s"));
    EXPECT_EQ(visitor.toldNow(), Strings{"value 2.260 00000000"});  // the null pointer
    EXPECT_FALSE(visitor.heard("SECRET"));
    all.run();
    EXPECT_EQ(treeOf(*all.root()).size(), treeOf(*root).size());
}

TEST_F(StreamRightsTest, HiddenEntityThatIsNewIsNotAnnounced) {
    Visitor visitor(server, rightsOf({{"", Access::read}, {"s", Access::none}, {"a/SECRET", Access::none}}));
    auto const room = Room::newEntity("SECRET");
    room->textIs("SECRET text");
    at("a")->adopt(room);
    at("a")->nextIs(room);
    room->titleIs("SECRET title");
    at("a")->roomDel("SECRET");
    visitor.run();
    EXPECT_FALSE(visitor.heard("SECRET"));
}

TEST_F(StreamRightsTest, KeyOfAVisibleMemberThatAHiddenOneReplacesIsDeleted) {
    at("a")->linkIs("k", at("a/b"));
    Visitor visitor(server, few);
    ASSERT_TRUE(visitor.at("a")->link("k"));
    at("a")->linkIs("k", at("s"));
    visitor.run();
    EXPECT_FALSE(visitor.at("a")->link("k"));
    EXPECT_TRUE(visitor.toldNow().empty());
    at("a")->linkDel("k");
    EXPECT_TRUE(visitor.toldNow().empty());  // it has gone already
    at("a")->linkIs("k", at("a/b"));
    visitor.run();
    EXPECT_EQ(visitor.at("a")->link("k"), visitor.at("a/b"));
}

TEST_F(StreamRightsTest, ReaderThatCatchesUpHearsOfNothingHidden) {
    for (int i = 0; i < 100; ++i) at("a")->linkIs(Vel::format("SECRET %d", i), at("s"));
    at("a")->linkIs("open", at("a/b"));
    Visitor visitor(server, few);
    visitor.disconnect();
    visitor.reader = server.newReader(true, nullptr, {}, few);
    visitor.replica.connected();
    visitor.reader->input(takeOutput(visitor.replica));
    for (int i = 0; i < 100; ++i) {
        visitor.step(20);
        at("a")->linkIs(Vel::format("SECRET %d", i), i % 2 ? at("s") : at("s/o"));
        at("a")->linkDel(Vel::format("SECRET %d", i + 1));
        root->nextIs(i % 2 ? at("s/o") : at("a/b"));
        at("s")->titleIs(Vel::format("SECRET %d", i));
    }
    visitor.run();
    EXPECT_FALSE(visitor.heard("SECRET"));
    EXPECT_EQ(visitor.at("a")->link("open"), visitor.at("a/b"));
}

TEST_F(StreamRightsTest, KeysThatComeAgainNameNothingHidden) {
    AttrLogServer small(root, {.logSize = 256, .chunkSize = 256});
    for (int i = 0; i < 80; ++i) at("a")->linkIs(Vel::format("k%d", i), at("a/b"));
    Visitor visitor(small, few);
    for (int round = 0; round < 3; ++round)
        for (int i = 0; i < 400; ++i) {
            at("a")->linkIs(Vel::format("k%d", i), at("a/b"));
            at("a")->linkDel(Vel::format("k%d", i));
            at("a")->linkIs(Vel::format("SECRET %d", i % 50), at("s"));
        }
    visitor.run();
    EXPECT_TRUE(visitor.heard("k79"));
    EXPECT_FALSE(visitor.heard("SECRET"));
    EXPECT_FALSE(visitor.at("a")->link("k79"));
}

TEST_F(StreamRightsTest, ManyHiddenMembersAreNotLookedAtAfterEachFewChanges) {
    auto const counting = std::make_shared<CountingRights>(few);
    Visitor visitor(server, counting);
    constexpr int count = 3000;
    for (int i = 0; i < count; ++i) {
        at("a")->linkIs(Vel::format("%d", i), at("s"));
        at("a")->titleIs(Vel::format("%d", i));
        visitor.run();
    }
    EXPECT_EQ(visitor.at("a")->title(), "2999");
    EXPECT_LT(counting->asked, 10u * count);
}

// --- moves ---

// Moves a room to another one.
void move(Ptr<Room> const& room, Ptr<Room> const& to) {
    Vel::ptr_cast<Room>(Ptr<Vel::Entity>(room->parent()))->roomDel(room->name());
    to->adopt(room);
}

TEST_F(StreamRightsTest, EntityThatMovesIntoAHiddenPartLeavesAtOnce) {
    auto const b = at("a/b");
    auto const c = at("a/b/c");
    root->nextIs(c);
    root->linkIs("c", c);
    Visitor visitor(server, few);
    ASSERT_TRUE(visitor.root()->next());
    move(b, at("s"));
    c->textIs("SECRET text");
    c->markIs("SECRET mark", "");
    b->roomIs("SECRET room");
    visitor.run();
    EXPECT_FALSE(visitor.heard("SECRET"));
    EXPECT_FALSE(visitor.root()->next());
    EXPECT_FALSE(visitor.root()->link("c"));
    EXPECT_FALSE(visitor.at("a/b"));
    EXPECT_EQ(visitor.replica.entities(), 2u);
    move(b, at("a"));
    visitor.run();
    EXPECT_EQ(visitor.at("a/b/c")->text(), "SECRET text");
    EXPECT_EQ(visitor.root()->next(), visitor.at("a/b/c"));
    EXPECT_EQ(visitor.root()->link("c"), visitor.at("a/b/c"));
}

TEST_F(StreamRightsTest, EntityThatOnlyHiddenOnesReferToLeavesWithThem) {
    auto const loose = Room::newEntity("loose");
    at("a/b")->nextIs(loose);
    Visitor visitor(server, few);
    ASSERT_EQ(visitor.at("a/b")->next()->name(), "loose");
    move(at("a/b"), at("s"));
    loose->textIs("SECRET");
    visitor.run();
    EXPECT_FALSE(visitor.heard("SECRET"));
}

TEST_F(StreamRightsTest, EntityThatIsTakenOutOfAHiddenPartStaysHiddenUntilItHasAnotherPlace) {
    auto const o = at("s/o");
    root->nextIs(o);
    Visitor visitor(server, few);
    at("s")->roomDel("o");
    o->titleIs("SECRET title");
    auto const box = Room::newEntity("box");  // in no place itself
    box->adopt(o);
    at("a")->nextIs(o->room("x"));
    at("a")->linkIs("SECRET link", o);
    visitor.run();
    EXPECT_FALSE(visitor.heard("SECRET"));
    at("a")->adopt(box);
    visitor.run();
    EXPECT_EQ(visitor.root()->next(), visitor.at("a/box/o"));
    EXPECT_EQ(visitor.at("a")->next(), visitor.at("a/box/o/x"));
    EXPECT_TRUE(visitor.at("a")->link("SECRET link"));
}

TEST_F(StreamRightsTest, MoveOfAnEntityThatNobodySeesHidesWhatIsBelow) {
    // Only "h/g/e" can be read, and is seen as the target of a pointer.
    auto const g = root->roomIs("h")->roomIs("g");
    auto const e = g->roomIs("e");
    root->nextIs(e);
    Visitor visitor(
        server, rightsOf({{"", Access::read}, {"s", Access::none}, {"h", Access::none}, {"h/g/e", Access::read}}));
    ASSERT_TRUE(visitor.root()->next());
    move(g, at("s"));
    e->textIs("SECRET");
    visitor.run();
    EXPECT_FALSE(visitor.heard("SECRET"));
    EXPECT_FALSE(visitor.root()->next());
}

TEST_F(StreamRightsTest, RootThatMovesIntoAHiddenPartRefusesItsReaders) {
    Visitor visitor(server, few, "a/b");
    Visitor all(server, nullptr, "a/b");
    auto const b = at("a/b");
    move(b, at("s"));
    b->textIs("SECRET");
    visitor.run();
    EXPECT_FALSE(visitor.heard("SECRET"));
    EXPECT_EQ(visitor.replica.error(), "refused: what was served is gone");
    all.run();
    EXPECT_EQ(all.root()->text(), "SECRET");
}

TEST_F(StreamRightsTest, MovesWhileCatchingUpHideAndShowAsWhileLive) {
    for (std::size_t const limit : {8u, 30u, 90u, 200u}) {
        auto const b = at("a/b");
        b->textIs("a/b");
        root->nextIs(b);
        Visitor live(server, few);
        Visitor late(server, few, "");
        late.disconnect();
        late.reader = server.newReader(true, nullptr, {}, few);
        late.replica.connected();
        late.reader->input(takeOutput(late.replica));
        late.step(limit);
        move(b, at("s"));
        b->textIs("SECRET text");
        late.step(limit);
        b->titleIs("SECRET title");
        late.step(limit);
        EXPECT_FALSE(late.heard("SECRET"));
        b->textIs("a/b");
        b->titleIs("");
        move(b, at("a"));
        late.run();
        live.run();
        EXPECT_FALSE(late.heard("SECRET")) << limit;
        EXPECT_EQ(treeOf(*late.root()), treeOf(*live.root()));
        EXPECT_EQ(late.root()->next(), late.at("a/b"));
    }
}

TEST_F(StreamRightsTest, NewcomerDoesNotSeeWhatHasMovedMeanwhile) {
    move(at("a/b"), at("s"));
    Visitor const visitor(server, few);
    EXPECT_FALSE(visitor.heard("a/b"));
    EXPECT_EQ(visitor.replica.entities(), 2u);
}

TEST_F(StreamRightsTest, WritesGoByTheNewPlace) {
    Visitor visitor(server, rightsOf({{"", Access::read}, {"a", Access::write}}));
    auto const b = at("a/b");
    EXPECT_EQ(visitor.ask(writeTo(idOf(b))), "done");
    move(b, root);
    visitor.run();
    EXPECT_EQ(wordOf(visitor.ask(writeTo(idOf(b)))), "read-only");
    move(at("s"), at("a"));
    visitor.run();
    EXPECT_EQ(visitor.ask(writeTo(idOf(at("a/s")))), "done");
}

TEST_F(StreamRightsTest, EntityWithoutAPlaceIsChangedByThoseWhoMayChangeTheRoot) {
    auto const loose = Room::newEntity("loose");
    at("a")->nextIs(loose);
    Visitor one(server, rightsOf({{"", Access::write}, {"a", Access::read}}));
    EXPECT_EQ(one.ask(writeTo(idOf(loose))), "done");
    Visitor two(server, rightsOf({{"", Access::read}, {"a", Access::write}}));
    EXPECT_EQ(wordOf(two.ask(writeTo(idOf(loose)))), "read-only");
}

TEST_F(StreamRightsTest, RememberedPlacesGoWithTheLastReaderWithRights) {
    {
        Visitor const visitor(server, few);
        EXPECT_EQ(at("a")->notifieeList()->size(), 2u);
    }
    server.checkPaths();
    EXPECT_EQ(at("a")->notifieeList()->size(), 0u);
    EXPECT_EQ(at("s")->notifieeList()->size(), 0u);
}

TEST_F(StreamRightsTest, DestroyedEntitiesAreForgotten) {
    root->nextIs(at("s/o"));
    Visitor visitor(server, few);
    root->roomDel("s");
    root->nextIs(nullptr);
    root->roomDel("a");
    visitor.run();
    EXPECT_EQ(visitor.replica.entities(), 1u);
    root->roomIs("s")->textIs("SECRET again");
    visitor.run();
    EXPECT_FALSE(visitor.heard("SECRET"));
}

// --- names, and what has no place ---

TEST_F(StreamRightsTest, NameWithSeparatorsIsTakenForSeveralNames) {
    root->nextIs(at("a")->roomIs("/x//y/"));
    root->next()->textIs("HIDDEN");
    for (char const* const path : {"a/x", "a/x/y"}) {
        Visitor const visitor(server, rightsOf({{"", Access::read}, {path, Access::none}}));
        EXPECT_FALSE(visitor.heard("HIDDEN"));
        EXPECT_FALSE(visitor.root()->next());
    }
}

TEST_F(StreamRightsTest, EntityThatIsPutIntoOneThatWasTakenOutHasItsRights) {
    auto const o = at("s/o");
    root->nextIs(o);
    auto const loose = Room::newEntity("loose");
    loose->roomIs("below");
    at("a")->nextIs(loose);
    Visitor visitor(server, few);
    ASSERT_TRUE(visitor.at("a")->next()->room("below"));
    at("s")->roomDel("o");
    o->adopt(loose);
    loose->textIs("SECRET");
    loose->room("below")->textIs("SECRET below");
    visitor.run();
    EXPECT_FALSE(visitor.heard("SECRET"));
    EXPECT_FALSE(visitor.at("a")->next());
    at("a")->adopt(o);
    visitor.run();
    EXPECT_EQ(visitor.at("a/o/loose/below")->text(), "SECRET below");
    EXPECT_EQ(visitor.at("a")->next(), visitor.at("a/o/loose"));
}

TEST_F(StreamRightsTest, ReaderThatDoesNotWantToWriteIsNotToldWhatLeadsToAnEntity) {
    root->nextIs(at("s/o"));
    Visitor visitor(server, rightsOf({{"", Access::read}, {"s", Access::none}, {"s/o", Access::write}}), "", false);
    ASSERT_TRUE(visitor.root()->next());
    EXPECT_EQ(
        visitor.ask(writeTo(idOf(at("s/o")))), "read-only: StreamTest::Room takes no such change from this reader");
}

TEST_F(StreamRightsTest, RootThatMovesWhileItIsWrittenIsNotServedToANewcomer) {
    Rights const rights = rightsOf({{"", Access::all}, {"s", Access::none}});
    Visitor visitor(server, rights, "a/b");
    auto const b = at("a/b");
    std::optional<Visitor> late;
    auto const observer = Vel::notifieeOf(*b, [&](Vel::AttributeId, Vel::NotifieeKey const*) {
        if (late) return;
        move(b, at("s"));
        b->titleIs("SECRET");
        at("a")->roomIs("b");
        late.emplace(server, rights, "a/b");
    });
    visitor.ask(writeTo(idOf(b)));
    EXPECT_FALSE(late->heard("SECRET"));
    EXPECT_FALSE(visitor.heard("SECRET"));
}

// --- extras, and the history ---

TEST_F(StreamRightsTest, ExtraIsMadeForTheRightsOfAReader) {
    std::map<Vel::StreamRights const*, Ptr<Room>> made;
    server.extraIs("@x", [&](Rights const& rights) {
        Ptr<Room>& room = made[rights.get()];
        if (!room) room = Room::newEntity(rights ? "few" : "all");
        return room;
    });
    EXPECT_EQ(Visitor(server, few, "@x").root()->name(), "copy");
    EXPECT_EQ(server.source("@x")->root().name(), "all");
    EXPECT_EQ(server.source("@x", few)->root().name(), "few");
    EXPECT_EQ(server.source("@x", rightsOf({{"", Access::read}, {"@x", Access::none}})), nullptr);
}

TEST_F(StreamRightsTest, HistoryKeepsThePlaceOfEachChange) {
    auto const history = std::make_shared<Vel::WriteHistory>(4);
    AttrLogServer noting(root, {.history = history});
    Visitor visitor(noting, few, "a");
    auto const& demuxer = noting.source("a", few)->impl().demuxer();
    EXPECT_EQ(visitor.ask(writeTo(demuxer.adapter(*at("a/b"))->id())), "done");
    ASSERT_TRUE(history->has(0));
    EXPECT_EQ(history->place(0), "a/b");
    at("a")->nextIs(Room::newEntity("loose"));
    visitor.run();
    EXPECT_EQ(visitor.ask(writeTo(demuxer.adapter(*at("a")->next())->id())), "done");
    EXPECT_EQ(history->place(1), std::nullopt);
}

}  // namespace
}  // namespace StreamTest
