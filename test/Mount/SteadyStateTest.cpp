#include "MountFixture.h"

#include "../Mox/Allocations.h"

#include "Mox/PrefixTrie.h"

namespace {

using namespace MountTest;

class SteadyStateTest : public SharedTest {};

TEST_F(SteadyStateTest, AChangeIsCarriedWithoutAllocating) {
    auto const original = generation(served, "g", 1);
    Server::Options options;
    options.statusInterval = 1h;
    Server server(loop, served, options);
    server.listen(address());
    Client::Options mine = quick();
    mine.statusInterval = 1h;
    Client client(loop, address(), here, "copy", mine);
    ASSERT_TRUE(client.sync(enough));
    auto const copy = copyAt("copy/g");
    U32 id = 1;
    std::function<bool()> const done = [&] { return copy->generation().id() == id; };
    auto const change = [&](U32 changes) {
        for (U32 i = 0; i < changes; ++i) {
            original->generationIs({++id, true});
            if (!loop.runUntil(done, enough)) FAIL();
        }
    };
    change(20'000);  // until everything has the room that it needs
    EXPECT_EQ(allocationsOf([&] { change(20'000); }), 0u);
}

// What one client takes long for is no reason for others to wait: each has its turn.
TEST_F(SteadyStateTest, AHugeCopyDoesNotKeepOthersFromBeingServed) {
    auto const trie = Mox::prefixTrieFactory("trie");
    served->entryIs(trie);
    for (int i = 0; i < 150'000; ++i) trie->prefixChildIs(Vel::format("prefix%d", i));
    auto const original = generation(served, "g", 1);
    Server server(loop, served);
    server.listen(address());
    Client small(loop, address(), here, "small", quick("g"));
    ASSERT_TRUE(small.sync(enough));
    // Both are read by this one loop, so that each turn is seen: the other copy is not complete yet.
    Client huge(loop, address(), here, "huge", quick("trie"));
    ASSERT_TRUE(until([&] { return huge.replica().entities() > 0; }));
    U32 served = 1;
    while (huge.state() != Client::State::synced) {
        original->generationIs({++served, true});
        ASSERT_TRUE(until([&] { return idAt("small") == served; }));
    }
    EXPECT_GE(served, 4u);
    EXPECT_EQ(huge.replica().entities(), 150'001u);
}

}  // namespace
