#include "MountFixture.h"

#include <deque>

namespace {

using namespace MountTest;
using State = Client::State;

// What observers and callbacks may do to the very thing that calls them.
class ReentryTest : public SharedTest {
protected:
    template <class E> void observe(E& entity, std::function<void()> f) {
        observers.push_back(Vel::notifieeOf(entity, [f = std::move(f)](Vel::AttributeId) { f(); }));
    }
    // Mounts what is served, two generations.
    void mount(Server::Options const& options = {}, Client::Options mine = quick()) {
        server.emplace(loop, served, options);
        server->listen(address());
        client.emplace(loop, address(), here, "copy", mine);
        ASSERT_TRUE(client->sync(enough)) << client->error();
    }
    void writeToCopy(char const* path, U32 id) {
        client->replica().write(*copyAt(path), Vel::firstEntityAttributeId,
            Vel::GenericValue(Vel::typeOf<Mox::Generation>(), Vel::valueToStrep(Mox::Generation(id, true))));
    }
    static Server::Options writable() {
        Server::Options options = quickServer();
        options.source.mayWrite = true;
        return options;
    }
    static Client::Options writing() {
        Client::Options options = quick();
        options.wantsToWrite = true;
        return options;
    }

    Ptr<GenerationEntity> a = generation(served, "a", 1);
    Ptr<GenerationEntity> b = generation(served, "b", 1);
    std::vector<std::unique_ptr<Vel::Notifiee>> observers;
    std::optional<Server> server;
    std::optional<Client> client;
};

TEST_F(ReentryTest, AClientMayBeDestroyedOutOfAnObserverAndNothingMoreIsApplied) {
    mount();
    observe(*copyAt("copy/a"), [&] { client.reset(); });
    a->generationIs({2, true});  // both go out together
    b->generationIs({2, true});
    ASSERT_TRUE(until([&] { return server->connections() == 0; }));
    EXPECT_EQ(idAt("copy/a"), 2u);
    EXPECT_EQ(idAt("copy/b"), 1u);
}

TEST_F(ReentryTest, AClientMayBeDestroyedOutOfEachState) {
    for (State const when : {State::syncing, State::synced, State::stale}) {
        server.emplace(loop, served);
        server->listen(address());
        std::optional<Client> one(std::in_place, loop, address(), here, "copy", quick());
        one->onStateIs([&](State state) {
            if (state == when) one.reset();
        });
        ASSERT_TRUE(until([&] { return !one || one->state() == State::synced; }));
        server.reset();
        EXPECT_TRUE(until([&] { return !one; })) << Mount::stateName(when);
    }
}

TEST_F(ReentryTest, AClientMayBeDestroyedOutOfItsError) {
    client.emplace(loop, address(), here, "copy", quick());
    String told;
    client->onErrorIs([&](String const& error) {
        client.reset();
        told = error;
    });
    ASSERT_TRUE(until([&] { return !client; }));
    EXPECT_EQ(told, address().text() + ": there is no such socket; nobody serves there");
}

TEST_F(ReentryTest, AClientMayBeDestroyedOutOfItsStatus) {
    client.emplace(loop, address(), here, "copy", quick());
    observe(*client->status(), [&] { client.reset(); });
    ASSERT_TRUE(until([&] { return !client; }));
    loop.runFor(30ms);
    EXPECT_FALSE(here->entry("copy"));
}

TEST_F(ReentryTest, AClientMayBeMadeOutOfAnObserver) {
    mount();
    std::optional<Client> second;
    observe(*copyAt("copy/a"), [&] {
        second.emplace(loop, address(), here, "second", quick());
        EXPECT_TRUE(second->sync(enough)) << second->error();
        EXPECT_EQ(idAt("second/a"), 2u);
    });
    a->generationIs({2, true});
    EXPECT_TRUE(until([&] { return second && idAt("copy/a") == 2; }));
}

TEST_F(ReentryTest, ClientsMayBeReplacedOutOfTheirStates) {
    server.emplace(loop, served);
    server->listen(address());
    int made = 0;
    std::function<void()> const make = [&] {
        ++made;
        client.emplace(loop, address(), here, "copy", quick());
        client->onStateIs([&](State state) {
            if (state == State::synced && made < 10) make();
        });
    };
    make();
    EXPECT_TRUE(until([&] { return made == 10 && client->state() == State::synced; }));
    EXPECT_TRUE(until([&] { return server->connections() == 1; }));
}

// --- the server ---

TEST_F(ReentryTest, AServerMayBeDestroyedOutOfAnObserverOfWhatAReaderChanges) {
    mount(writable(), writing());
    observe(*a, [&] { server.reset(); });
    writeToCopy("copy/a", 7);
    writeToCopy("copy/b", 7);
    ASSERT_TRUE(until([&] { return client->state() == State::stale; }));
    EXPECT_EQ(a->generation().id(), 7u);
    EXPECT_EQ(b->generation().id(), 1u) << "nothing more is applied";
}

TEST_F(ReentryTest, AServerMayBeDestroyedOutOfItsStatus) {
    mount(quickServer());
    auto const status = server->status();
    observe(*status, [&] { server.reset(); });
    ASSERT_TRUE(until([&] { return !server && client->state() == State::stale; }));
    EXPECT_EQ(status->connections(), 0u);
}

TEST_F(ReentryTest, AServerMayBeDestroyedOutOfItsStatusWhileItBeginsToListen) {
    server.emplace(loop, served);
    observe(*server->status(), [&] { server.reset(); });
    EXPECT_EQ(server->listen(address()), address());
    EXPECT_FALSE(server);
    client.emplace(loop, address(), here, "copy", quick());
    ASSERT_TRUE(until([&] { return !client->error().empty(); }));
    EXPECT_EQ(client->error(), address().text() + ": there is no such socket; nobody serves there");
}

TEST_F(ReentryTest, AServerMayBeDestroyedOutOfAClientsStates) {
    for (State const when : {State::syncing, State::synced}) {
        server.emplace(loop, served);
        server->listen(address());
        Client one(loop, address(), here, "copy", quick());
        one.onStateIs([&](State state) {
            if (state == when) server.reset();
        });
        EXPECT_TRUE(until([&] { return !server && !one.isConnected() && !one.error().empty(); }));
    }
}

TEST_F(ReentryTest, AServerMayBeDestroyedAndMadeOutOfAClientsError) {
    mount();
    int made = 0;
    client->onErrorIs([&](String const&) {
        if (server) return;
        server.emplace(loop, served);
        server->listen(address());
        ++made;
    });
    for (int round = 1; round < 6; ++round) {
        server.reset();
        ASSERT_TRUE(until([&] { return made == round && client->state() == State::synced; })) << client->error();
    }
}

// The write that comes with the hello is applied while the connection is being accepted.
TEST_F(ReentryTest, AServerMayBeDestroyedByTheFirstMessageOfAConnection) {
    server.emplace(loop, served, writable());
    server->listen(address());
    observe(*a, [&] { server.reset(); });
    Message bytes = helloFor("a", true);
    U8 const change[] = {11, 11, 0, 0, 1, 0x41, 0x02, 0, 0, 0, 77, 1};
    bytes.insert(bytes.end(), std::begin(change), std::end(change));
    RawPeer peer(address());
    ASSERT_EQ(peer.send(bytes), bytes.size());
    EXPECT_TRUE(untilSeen([&] { return peer.isClosed(); }));
    EXPECT_EQ(a->generation().id(), 77u);
    EXPECT_FALSE(server);
}

// --- the loop run from within ---

TEST_F(ReentryTest, AnObserverMayPollTheLoop) {
    mount();
    int depth = 0;
    int deepest = 0;
    auto const poll = [&] {
        deepest = std::max(deepest, ++depth);
        for (int i = 0; i < 10; ++i) loop.poll();
        --depth;
    };
    observe(*copyAt("copy/a"), poll);
    observe(*copyAt("copy/b"), poll);
    for (U32 id = 2; id < 300; ++id) {
        a->generationIs({id, true});
        b->generationIs({id, true});
        if (id % 7 == 0) loop.poll();
    }
    EXPECT_TRUE(until([&] { return idAt("copy/a") == 299 && idAt("copy/b") == 299; }));
    EXPECT_EQ(deepest, 1) << "a client's messages are applied one after another";
}

TEST_F(ReentryTest, AnObserverMayWaitForAnotherCopy) {
    mount();
    auto const there = Dir::newEntity("there");
    Client other(loop, address(), there, "copy", quick());
    ASSERT_TRUE(other.sync(enough));
    auto const otherB = Vel::ptr_cast<GenerationEntity>(there->entity("copy/b"));
    bool hasCome = false;
    observe(*copyAt("copy/a"), [&] {
        b->generationIs({5, true});
        hasCome = until([&] { return otherB->generation().id() == 5; });
    });
    a->generationIs({2, true});
    EXPECT_TRUE(until([&] { return idAt("copy/b") == 5; }));
    EXPECT_TRUE(hasCome);
}

// Everything that is possible is done to the source of a change while an observer of the change waits.
TEST_F(ReentryTest, WhatIsServedMayBeReplacedByAnObserverThatRunsTheLoop) {
    Server::Options options = writable();
    options.statusInterval = 1ms;
    server.emplace(loop, served, options);
    server->listen(address());
    client.emplace(loop, address(), here, "copy", [] {
        Client::Options mine = writing();
        mine.path = "a";
        return mine;
    }());
    ASSERT_TRUE(client->sync(enough));
    Ptr<GenerationEntity> second;
    observe(*a, [&] {
        if (second) return;
        served->entryDel("a");
        second = generation(served, "a", 50);
        Client another(loop, address(), Dir::newEntity(""), "x", quick("b"));
        EXPECT_TRUE(another.sync(enough)) << another.error();
        loop.runFor(20ms);  // the server looks at its paths
    });
    writeToCopy("copy", 9);
    ASSERT_TRUE(until([&] { return second && idAt("copy") == 50; })) << client->error();
    EXPECT_EQ(a->generation().id(), 9u);
    second->generationIs({51, true});
    EXPECT_TRUE(until([&] { return idAt("copy") == 51; }));
}

// The connection fails while an observer of one of its messages runs the loop, and more messages are waiting in the
// socket: they come after those that came with the one that is being applied, or not at all.
TEST_F(ReentryTest, AFailureWhileAnObserverPollsKeepsTheOrder) {
    mount(writable(), writing());
    std::vector<U32> seen;
    observe(*copyAt("copy/b"), [&] { seen.push_back(idAt("copy/b")); });
    observe(*copyAt("copy/a"), [&] {
        for (U32 id = 100; id < 110; ++id) b->generationIs({id, true});
        loop.poll();
        server.reset();
        writeToCopy("copy/b", 9);  // nobody takes it
        for (int i = 0; i < 5; ++i) loop.poll();
    });
    a->generationIs({2, true});
    for (U32 id = 2; id < 50; ++id) b->generationIs({id, true});
    ASSERT_TRUE(until([&] { return client->state() == State::stale; }));
    EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end())) << testing::PrintToString(seen);
    EXPECT_GE(seen.size(), 48u);
}

TEST_F(ReentryTest, AnObserverThatThrowsEndsTheConnectionOnly) {
    mount();
    bool throws = true;
    observe(*copyAt("copy/a"), [&] {
        if (std::exchange(throws, false)) throw Vel::RangeException("not this one");
    });
    std::vector<String> errors;
    client->onErrorIs([&](String const& error) { errors.push_back(error); });
    a->generationIs({2, true});
    ASSERT_TRUE(until([&] { return !errors.empty(); }));
    EXPECT_EQ(errors, std::vector<String>{address().text() + ": not this one"});
    EXPECT_TRUE(client->sync(enough)) << "and it is made again";
}

TEST_F(ReentryTest, AStateThatIsToldMayThrowAndTheClientGoesOn) {
    for (State const when : {State::syncing, State::synced, State::stale}) {
        server.emplace(loop, served);
        server->listen(address());
        Client one(loop, address(), Dir::newEntity("there"), "copy", quick());
        int thrown = 0;
        one.onStateIs([&](State state) {
            if (state == when && ++thrown == 1) throw Vel::Exception("no such state");
        });
        if (when == State::stale) {
            ASSERT_TRUE(one.sync(enough)) << one.error();
            server.reset();
            server.emplace(loop, served);
            server->listen(address());
        }
        ASSERT_TRUE(until([&] { return thrown >= 1 && one.state() == State::synced; })) << one.error();
        server.reset();
    }
}

TEST_F(ReentryTest, WhatAnObserverThrowsWhileAServerGoesComesOutOfTheLoop) {
    mount();
    bool throws = true;
    observe(*server->status(), [&] {
        if (std::exchange(throws, false)) throw Vel::RangeException("not now");
    });
    server.reset();
    EXPECT_FALSE(throws);
    EXPECT_THROW(loop.poll(), Vel::RangeException);
    EXPECT_TRUE(until([&] { return client->state() == State::stale; })) << "and the client is told";
}

TEST_F(ReentryTest, ALoopMayEndBeforeTheConnectionsAreDoneWith) {
    for (int round = 0; round < 5; ++round) {
        auto own = std::make_unique<Loop>();
        std::optional<Server> one(std::in_place, *own, served);
        one->listen(address());
        std::optional<Client> two(std::in_place, *own, address(), here, "copy", quick());
        EXPECT_EQ(round > 0 && two->sync(enough), round > 0);
        a->generationIs({static_cast<U32>(round) + 10, true});
        two.reset();
        one.reset();
        own.reset();  // with all that was to be called
    }
}

}  // namespace
