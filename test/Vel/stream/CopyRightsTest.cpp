#include "Room.h"

#include <optional>

// A copy is served again, to readers with rights, while it follows its source.
namespace StreamTest {
namespace {

using Vel::Access;
using Vel::AttrLogServer;
using Vel::Ptr;
using Vel::String;

// The rooms "a", "a/b" and "s". The copy takes the source's bytes in small pieces. After each piece its reader is sent
// all that there is for it.
class CopyRightsTest : public testing::Test {
protected:
    CopyRightsTest() : CopyRightsTest(Room::newEntity("root")) {
        root->roomIs("a")->roomIs("b")->textIs("a/b");
        root->roomIs("s")->textIs("SECRET s");
    }
    explicit CopyRightsTest(Ptr<Entity> const& served) : root(Vel::ptr_cast<Room>(served)), source(served) {}
    ~CopyRightsTest() override { disconnect(); }

    Ptr<Room> at(char const* path) const { return Vel::ptr_cast<Room>(root->entity(path)); }
    Ptr<Room> copyAt(char const* path) const { return Vel::ptr_cast<Room>(copy.root()->entity(path)); }

    void connect() {
        upstream = source.newReader();
        copy.connected();
        upstream->input(takeOutput(copy));
        left = takeOutput(*upstream);
    }
    void disconnect() {
        if (upstream) upstream->closed("");
        upstream = nullptr;
        copy.closed("");
        if (visitor) visitor->run();
    }
    // Carries so many of the bytes that the source has sent, or as many as there are.
    void carry(std::size_t count, std::size_t piece = 1) {
        while (count != 0 && !left.empty()) {
            std::size_t const size = std::min({piece, count, left.size()});
            copy.input(std::span(left).first(size));
            left.erase(left.begin(), left.begin() + static_cast<std::ptrdiff_t>(size));
            count -= size;
            if (!server && copy.root()) server.emplace(copy.root(), Vel::AttrLogSource::Options{.mayWrite = false});
            if (server && !visitor) visitor.emplace(*server, rights);
            if (visitor) visitor->run();
        }
    }
    // Carries all there is, in pieces, and what the source has to send meanwhile.
    void carryAll(std::size_t piece = 1) {
        do {
            carry(left.size(), piece);
            left = takeOutput(*upstream);
        } while (!left.empty());
        ASSERT_EQ(copy.state(), Vel::AttrLogReplica::State::synced) << copy.error();
    }

    Ptr<Room> root;
    Vel::AttrLogSource source;
    std::unique_ptr<Vel::StreamPeer> upstream;
    Bytes left;
    Vel::AttrLogReplica copy{Vel::Dir::newEntity(""), "copy", {}};
    Rights rights = rightsOf({{"", Access::read}, {"s", Access::none}});
    std::optional<AttrLogServer> server;
    std::optional<Visitor> visitor;
};

TEST_F(CopyRightsTest, EntityThatIsReferredToBeforeItsPlaceIsKnownIsHidden) {
    auto const secret = at("s")->roomIs("SECRET room")->roomIs("SECRET x");
    secret->textIs("SECRET text");
    at("a")->nextIs(secret);
    at("a")->linkIs("SECRET link", at("s")->room("SECRET room"));
    connect();
    carryAll();
    EXPECT_EQ(copyAt("a")->next()->text(), "SECRET text");
    EXPECT_FALSE(visitor->heard("SECRET"));
    EXPECT_FALSE(visitor->at("a")->next());
    EXPECT_EQ(visitor->at("a/b")->text(), "a/b");
}

TEST_F(CopyRightsTest, EntityThatReallyHasNoPlaceIsShownAtTheSyncMark) {
    auto const loose = Room::newEntity("loose");
    loose->roomIs("below")->textIs("below");
    at("a")->linkIs("key", loose);
    root->nextIs(loose->room("below"));
    connect();
    carryAll();
    ASSERT_TRUE(visitor->root()->next());
    EXPECT_EQ(visitor->root()->next()->text(), "below");
    EXPECT_EQ(visitor->at("a")->link("key")->room("below"), visitor->root()->next());
    EXPECT_FALSE(visitor->heard("SECRET"));
}

TEST_F(CopyRightsTest, EntityWhosePlaceCanBeReadIsShownToo) {
    auto const c = at("a/b")->roomIs("c")->roomIs("d");
    c->textIs("text");
    root->nextIs(c);
    root->linkIs("c", at("a/b/c"));
    connect();
    carryAll();
    EXPECT_EQ(visitor->root()->next(), visitor->at("a/b/c/d"));
    EXPECT_EQ(visitor->root()->link("c"), visitor->at("a/b/c"));
    EXPECT_EQ(visitor->at("a/b/c/d")->text(), "text");
}

TEST_F(CopyRightsTest, ConnectionThatEndsInTheMiddleShowsNothingHidden) {
    auto const secret = at("s")->roomIs("SECRET room")->roomIs("SECRET x");
    secret->roomIs("SECRET y")->textIs("SECRET text");
    root->nextIs(secret->room("SECRET y"));
    at("a")->nextIs(secret);
    at("a")->linkIs("loose", Room::newEntity("loose"));
    connect();
    std::size_t const size = left.size();
    disconnect();
    for (std::size_t count = 0; count <= size; count += 3) {
        connect();
        carry(count, count);
        disconnect();
        ASSERT_FALSE(visitor && visitor->heard("SECRET")) << count;
    }
    connect();
    carryAll();
    EXPECT_FALSE(visitor->heard("SECRET"));
    EXPECT_FALSE(visitor->root()->next());
    ASSERT_TRUE(visitor->at("a")->link("loose"));
    EXPECT_FALSE(copyAt("a")->link("loose")->awaitsPlace());
}

TEST_F(CopyRightsTest, ConnectionThatEndsInTheMiddleShowsWhatHasGotItsPlace) {
    auto const c = at("a/b")->roomIs("c")->roomIs("d");
    root->nextIs(c);
    root->linkIs("loose", Room::newEntity("loose"));
    connect();
    while (!copy.root() || !copy.root()->entity("a/b/c/d")) carry(1);
    ASSERT_EQ(copy.state(), Vel::AttrLogReplica::State::syncing);
    EXPECT_FALSE(visitor->at("a/b/c/d"));
    disconnect();
    EXPECT_TRUE(visitor->at("a/b/c/d"));
    EXPECT_EQ(visitor->root()->next(), visitor->at("a/b/c/d"));
    EXPECT_FALSE(visitor->root()->link("loose"));
}

TEST_F(CopyRightsTest, NextConnectionHidesNothingThatWasShown) {
    auto const loose = Room::newEntity("loose");
    at("a")->nextIs(loose);
    root->nextIs(at("a/b"));
    connect();
    carryAll();
    auto const seen = visitor->at("a")->next();
    ASSERT_TRUE(seen);
    disconnect();
    loose->textIs("new");
    connect();
    visitor->sent.clear();
    carryAll();
    EXPECT_EQ(visitor->at("a")->next(), seen);
    EXPECT_EQ(seen->text(), "new");
    EXPECT_EQ(visitor->root()->next(), visitor->at("a/b"));
}

TEST_F(CopyRightsTest, ChangesOfACompleteCopyAreToldAtOnce) {
    connect();
    carryAll();
    at("a")->nextIs(Room::newEntity("loose"));
    carryAll();
    ASSERT_TRUE(visitor->at("a")->next());
    EXPECT_EQ(visitor->at("a")->next()->name(), "loose");
}

TEST_F(CopyRightsTest, RoomTakenOutOfOneWithoutAPlaceStaysHiddenUntilItHasOne) {
    // In the copy, "x" is in "y", whose place is not known yet, when the source takes it out.
    auto const y = at("s")->roomIs("SECRET z")->roomIs("SECRET y");
    auto const x = y->roomIs("SECRET x");
    at("a")->linkIs("1", y);
    at("a")->linkIs("2", x);
    at("a")->linkIs("3", at("a/b")->roomIs("c"));
    connect();
    while (!copy.root() || !copy.root()->entity("a") || !copyAt("a")->link("2")) carry(1);
    auto const copied = copyAt("a")->link("2");
    auto const above = copyAt("a")->link("1");
    ASSERT_TRUE(above->awaitsPlace());
    if (!copied->parent()) above->adopt(copied);
    above->roomDel("SECRET x");
    copyAt("a")->linkIs("4", copied);
    copied->textIs("SECRET text");
    visitor->run();
    EXPECT_FALSE(visitor->heard("SECRET"));
    copyAt("a")->adopt(copied);
    carryAll();
    EXPECT_EQ(visitor->at("a")->link("4"), visitor->at("a/SECRET x"));
}

TEST_F(CopyRightsTest, RoomPutIntoOneThatAwaitsItsPlaceIsHidden) {
    at("a")->nextIs(at("s")->roomIs("SECRET z")->roomIs("SECRET y"));
    connect();
    while (!copy.root() || !copy.root()->entity("a") || !copyAt("a")->next()) carry(1);
    ASSERT_TRUE(copyAt("a")->next()->awaitsPlace());
    auto const loose = Room::newEntity("loose");
    copyAt("a")->linkIs("key", loose);
    visitor->run();
    ASSERT_TRUE(visitor->at("a")->link("key"));
    copyAt("a")->next()->adopt(loose);
    loose->textIs("SECRET text");
    visitor->run();
    EXPECT_FALSE(visitor->at("a")->link("key"));
    EXPECT_FALSE(visitor->heard("SECRET"));
}

// A reader's view is swept whenever something is shown, which asks again for each hidden room that is referred to.
TEST_F(CopyRightsTest, ManyEntitiesAreShownAtOnce) {
    auto const counting = std::make_shared<CountingRights>(rights);
    rights = counting;
    constexpr int count = 400;
    for (int i = 0; i < count; ++i) {
        root->linkIs(Vel::format("hidden %d", i), at("s")->roomIs(Vel::format("%d", i)));
        root->linkIs(Vel::format("%d", i), at("a/b")->roomIs(Vel::format("%d", i))->roomIs("x"));
    }
    connect();
    carryAll(100);
    EXPECT_EQ(visitor->root()->links().size(), 400u);
    EXPECT_EQ(visitor->root()->link("399"), visitor->at("a/b/399/x"));
    EXPECT_LT(counting->asked, 40u * count);
}

// Directories: the copy is told of an entry first, and then puts it in. The entries are the room "a", which has a
// pointer to "s/SECRET x", "d/b", and "e/c", to which "d/b" has a pointer.
class CopyOfDirsRightsTest : public CopyRightsTest {
protected:
    CopyOfDirsRightsTest() : CopyRightsTest(Vel::Dir::newEntity("root")) {
        auto const room = [](Ptr<Vel::Dir> const& dir, char const* name) {
            auto const made = Room::newEntity(name);
            dir->entryIs(made);
            return made;
        };
        auto const dir = [&](char const* name) {
            auto const made = Vel::Dir::newEntity(name);
            top->entryIs(made);
            return made;
        };
        auto const x = room(dir("s"), "SECRET x"), c = room(dir("e"), "c");
        x->textIs("SECRET text");
        room(top, "a")->nextIs(x);
        room(dir("d"), "b")->nextIs(c);
    }
    Ptr<Room> seen(char const* path) const { return Vel::ptr_cast<Room>(visitor->replica.root()->entity(path)); }

    Ptr<Vel::Dir> top = Vel::ptr_cast<Vel::Dir>(Ptr<Entity>(&source.root()));
};

TEST_F(CopyOfDirsRightsTest, EntryThatIsReferredToBeforeItsPlaceIsKnownIsHidden) {
    connect();
    carryAll();
    EXPECT_EQ(Vel::ptr_cast<Room>(copy.root()->entity("a"))->next()->text(), "SECRET text");
    EXPECT_FALSE(visitor->heard("SECRET"));
    EXPECT_FALSE(seen("a")->next());
    EXPECT_EQ(seen("d/b")->next(), seen("e/c"));
}

TEST_F(CopyOfDirsRightsTest, EntryThatIsPutInAtOnceIsShownBeforeTheSyncMark) {
    connect();
    while (!copy.root() || !copy.root()->entity("d/b")) carry(1);
    EXPECT_EQ(copy.state(), Vel::AttrLogReplica::State::syncing);
    EXPECT_TRUE(seen("a"));
    EXPECT_TRUE(seen("d/b"));
}

}  // namespace
}  // namespace StreamTest
