#include "MountFixture.h"

namespace {

using namespace MountTest;
using Mount::ClientStatus;
using Mount::ServerStatus;

class StatusTest : public SharedTest {
protected:
    Ptr<GenerationEntity> original = generation(served, "g", 1);
};

TEST_F(StatusTest, AServerTellsWhatItHasDone) {
    Server server(loop, served, quickServer());
    auto const status = server.status();
    EXPECT_EQ(status->address(), "");
    server.listen(address());
    EXPECT_EQ(status->address(), address().text());
    {
        RawPeer peer(address());
        Message const hello = helloFor("g");
        peer.send(hello);
        std::string const mark("\1\11");
        ASSERT_TRUE(untilSeen([&] { return peer.received().ends_with(mark); }));
        ASSERT_TRUE(until([&] { return status->bytesOut() == peer.received().size(); }));
        EXPECT_EQ(status->bytesIn(), hello.size());
        EXPECT_EQ(status->connections(), 1u);
        EXPECT_EQ(status->accepted(), 1u);
        EXPECT_EQ(status->refused(), 0u);
        EXPECT_EQ(status->failed(), 0u);
        EXPECT_EQ(status->error(), "");
        original->generationIs({2, true});
        ASSERT_TRUE(untilSeen(
            [&] { return status->bytesOut() == peer.received().size() && !peer.received().ends_with(mark); }));
    }
    U64 const out = status->bytesOut();
    ASSERT_TRUE(until([&] { return status->connections() == 0; }));
    EXPECT_EQ(status->bytesOut(), out) << "connections that have ended count";
    EXPECT_EQ(status->accepted(), 1u);
}

// A connection that has ended was refused, or failed, or neither, and never both.
TEST_F(StatusTest, EndsAreCountedOnce) {
    Server server(loop, served, quickServer());
    auto const status = server.status();
    server.listen(address());
    auto const ended = [&](Message const& bytes) {
        RawPeer peer(address());
        EXPECT_EQ(peer.send(bytes), bytes.size());
        peer.finish();
        U64 const before = status->accepted();
        EXPECT_TRUE(untilSeen([&] { return peer.isClosed(); }));
        EXPECT_TRUE(until([&] { return status->accepted() > before && status->connections() == 0; }));
        return std::vector<U64>{status->accepted(), status->refused(), status->failed()};
    };
    EXPECT_EQ(ended(helloFor("g")), (std::vector<U64>{1, 0, 0}));
    EXPECT_EQ(status->error(), "");
    EXPECT_EQ(ended(helloFor("none")), (std::vector<U64>{2, 1, 0}));
    EXPECT_EQ(ended({1, 3}), (std::vector<U64>{3, 1, 1}));
    EXPECT_EQ(ended({3, 1}), (std::vector<U64>{4, 1, 2})) << "cut within a message";
}

TEST_F(StatusTest, BothSidesCountTheSameBytes) {
    Server server(loop, served, quickServer());
    server.listen(address());
    Client client(loop, address(), here, "copy", quick());
    ASSERT_TRUE(client.sync(enough));
    for (U32 id = 2; id < 50; ++id) {
        original->generationIs({id, true});
        loop.poll();
    }
    ASSERT_TRUE(until([&] { return idAt("copy/g") == 49; }));
    auto const s = server.status();
    auto const c = client.status();
    // Both may have been updated before the last changes, and be equal then.
    EXPECT_TRUE(until([&] { return c->messages() == client.replica().messagesIn(); }));
    EXPECT_TRUE(until([&] { return c->bytesIn() == s->bytesOut() && c->bytesOut() == s->bytesIn(); }));
    EXPECT_GT(c->bytesIn(), c->bytesOut());
    EXPECT_EQ(c->entities(), 2u);
}

TEST_F(StatusTest, BytesOfAllConnectionsOfAClientCount) {
    std::optional<Server> server(std::in_place, loop, served);
    server->listen(address());
    Client client(loop, address(), here, "copy", quick());
    ASSERT_TRUE(client.sync(enough));
    auto const status = client.status();
    ASSERT_TRUE(until([&] { return status->bytesIn() != 0 && status->bytesOut() != 0; }));
    U64 const in = status->bytesIn();
    U64 const out = status->bytesOut();
    server.reset();
    ASSERT_TRUE(until([&] { return status->state() == "stale"; }));
    EXPECT_GE(status->bytesIn(), in) << "also while there is no connection";
    server.emplace(loop, served);
    server->listen(address());
    ASSERT_TRUE(client.sync(enough));
    ASSERT_TRUE(until([&] { return status->bytesIn() >= 2 * in && status->bytesOut() >= 2 * out; }));
}

TEST_F(StatusTest, AClientTellsItsStory) {
    Client client(loop, address(), here, "copy", quick("g"));
    auto const status = client.status();
    std::string const nobody = address().text().stdString() + ": there is no such socket; nobody serves there";
    ASSERT_TRUE(until([&] { return status->attempts() >= 2; }));
    EXPECT_EQ(status->address(), address().text());
    EXPECT_EQ(status->path(), "g");
    EXPECT_EQ(status->state(), "empty");
    EXPECT_EQ(status->error(), String(nobody));
    EXPECT_EQ(status->connects(), 0u);
    {
        Server server(loop, served);
        server.listen(address());
        ASSERT_TRUE(client.sync(enough));
        EXPECT_EQ(status->state(), "synced");
        EXPECT_EQ(status->error(), "");
        EXPECT_EQ(status->connects(), 1u);
        EXPECT_EQ(status->entities(), 1u);
    }
    ASSERT_TRUE(until([&] { return status->state() == "stale" && !status->error().empty(); }));
    EXPECT_EQ(status->entities(), 0u);
}

TEST_F(StatusTest, StatesAreNamed) {
    EXPECT_STREQ(Mount::stateName(Client::State::empty), "empty");
    EXPECT_STREQ(Mount::stateName(Client::State::syncing), "syncing");
    EXPECT_STREQ(Mount::stateName(Client::State::synced), "synced");
    EXPECT_STREQ(Mount::stateName(Client::State::stale), "stale");
}

// A server that serves its own status, and a client that serves its status on.
TEST_F(StatusTest, AStatusIsServedLikeAnyEntity) {
    Server server(loop, served, quickServer());
    served->entryIs(server.status());
    server.listen(address());
    Client client(loop, address(), here, "copy", quick());
    here->entryIs(client.status());
    ASSERT_TRUE(client.sync(enough));
    auto const copy = Vel::ptr_cast<ServerStatus>(here->entity("copy/server"));
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->address(), address().text());
    ASSERT_TRUE(until([&] { return copy->connections() == 1 && copy->accepted() == 1 && copy->bytesOut() > 100; }));

    Server second(loop, here);
    second.listen(address("second"));
    auto const there = Dir::newEntity("there");
    Client next(loop, address("second"), there, "status", quick("client"));
    ASSERT_TRUE(next.sync(enough)) << next.error();
    auto const clientStatus = Vel::ptr_cast<ClientStatus>(there->entry("status"));
    ASSERT_TRUE(clientStatus);
    EXPECT_EQ(clientStatus->state(), "synced");
    U64 const before = clientStatus->bytesIn();
    EXPECT_TRUE(until([&] { return clientStatus->bytesIn() > before; }));
}

TEST_F(StatusTest, StatusesHaveTypesOfTheirOwn) {
    EXPECT_STREQ(Server(loop, served).status()->fwkType().name(), "Mount::ServerStatus");
    EXPECT_STREQ(Client(loop, address(), here, "copy").status()->fwkType().name(), "Mount::ClientStatus");
}

}  // namespace
