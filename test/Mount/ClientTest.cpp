#include "MountFixture.h"
#include "SystemFailures.h"

#include "Mount/Answer.h"
#include "Redundancy/RedundancyStatus.h"
#include "Vel/base/Exception.h"

#include <deque>

namespace {

using namespace MountTest;
using State = Client::State;

class ClientTest : public SharedTest {
protected:
    // Everything that an observer of the copy is told from now on, as the generation's id.
    void observe(GenerationEntity& copy) {
        observers.push_back(Vel::notifieeOf(copy, [&](Vel::AttributeId) { seen.push_back(copy.generation().id()); }));
    }
    std::vector<U32> seen;
    std::vector<std::unique_ptr<Vel::Notifiee>> observers;
};

// The same over each kind of socket that needs no certificates.
class EachSocketTest : public ClientTest, public testing::WithParamInterface<char const*> {
protected:
    Address place() const { return GetParam()[0] == 't' ? Address(GetParam()) : address(); }
};
INSTANTIATE_TEST_SUITE_P(Each, EachSocketTest, testing::Values("unix", "tcp:127.0.0.1:0", "tcp:localhost:0"));

TEST_P(EachSocketTest, ACopyIsMadeAndFollows) {
    auto const original = generation(served, "g", 1);
    Server server(loop, served);
    Address const bound = server.listen(place());
    Client client(loop, bound, here, "copy");
    EXPECT_EQ(client.state(), State::empty);
    ASSERT_TRUE(client.sync(enough)) << client.error();
    EXPECT_TRUE(client.isConnected());
    EXPECT_EQ(idAt("copy/g"), 1u);
    original->generationIs({2, true});
    generation(served, "later", 3);
    EXPECT_TRUE(until([&] { return idAt("copy/later") == 3; }));
    EXPECT_EQ(idAt("copy/g"), 2u);
    served->entryDel("g");
    EXPECT_TRUE(until([&] { return !here->entity("copy/g"); }));
}

TEST_P(EachSocketTest, EverythingOfALargeTreeComes) {
    for (int d = 0; d < 20; ++d) {
        auto const dir = Dir::newEntity(Vel::format("d%d", d));
        served->entryIs(dir);
        for (int i = 0; i < 500; ++i)
            generation(dir, Vel::format("g%d", i).charPtr(), static_cast<U32>(1000 * d + i + 1));
    }
    Server server(loop, served);
    Client client(loop, server.listen(place()), here, "copy");
    ASSERT_TRUE(client.sync(enough)) << client.error();
    for (int d = 0; d < 20; ++d)
        for (int i = 0; i < 500; ++i)
            ASSERT_EQ(idAt(Vel::format("copy/d%d/g%d", d, i).charPtr()), static_cast<U32>(1000 * d + i + 1));
}

TEST_F(ClientTest, ManyClientsFollowOneServer) {
    auto const original = generation(served, "g", 1);
    Server server(loop, served);
    server.listen(address());
    std::deque<Client> clients;
    for (int i = 0; i < 30; ++i) clients.emplace_back(loop, address(), here, Vel::format("copy%d", i));
    for (auto& client : clients) ASSERT_TRUE(client.sync(enough)) << client.error();
    EXPECT_EQ(server.connections(), 30u);
    original->generationIs({2, true});
    for (int i = 0; i < 30; ++i)
        EXPECT_TRUE(until([&] { return idAt(Vel::format("copy%d/g", i).charPtr()) == 2; })) << i;
}

TEST_F(ClientTest, MountsOfSeveralServersStandInOneDirectory) {
    std::deque<Server> servers;
    std::deque<Client> clients;
    for (int i = 0; i < 5; ++i) {
        auto const root = Dir::newEntity("root");
        generation(root, "g", static_cast<U32>(100 + i));
        servers.emplace_back(loop, root).listen(address("s" + std::to_string(i)));
        clients.emplace_back(loop, address("s" + std::to_string(i)), here, Vel::format("m%d", i));
    }
    for (auto& client : clients) ASSERT_TRUE(client.sync(enough)) << client.error();
    for (int i = 0; i < 5; ++i) EXPECT_EQ(idAt(Vel::format("m%d/g", i).charPtr()), static_cast<U32>(100 + i));
    EXPECT_EQ(here->entries(), 5u);
}

TEST_F(ClientTest, AMountMayBeServedAgain) {
    auto const original = generation(served, "g", 1);
    Server first(loop, served);
    first.listen(address("first"));
    Client middle(loop, address("first"), here, "copy");
    Server second(loop, here);
    second.listen(address("second"));
    auto const there = Dir::newEntity("there");
    Client last(loop, address("second"), there, "end", quick("copy"));
    ASSERT_TRUE(last.sync(enough)) << last.error();
    original->generationIs({2, true});
    EXPECT_TRUE(until([&] {
        auto const copy = Vel::ptr_cast<GenerationEntity>(there->entity("end/g"));
        return copy && copy->generation().id() == 2;
    }));
}

TEST_F(ClientTest, AGivenRootIsFilled) {
    auto const original = generation(served, "g", 5);
    Server server(loop, served);
    server.listen(address());
    auto const root = Mox::generationEntityFactory("mine");
    Client client(loop, address(), root, quick("g"));
    ASSERT_TRUE(client.sync(enough)) << client.error();
    EXPECT_EQ(root->generation().id(), 5u);
    EXPECT_EQ(client.replica().root(), root);
}

TEST_F(ClientTest, ARootOfAnotherTypeIsAnError) {
    generation(served, "g", 5);
    Server server(loop, served);
    server.listen(address());
    Client client(loop, address(), Dir::newEntity("dir"), quick("g"));
    ASSERT_TRUE(until([&] { return !client.error().empty(); }));
    EXPECT_EQ(client.error(),
        address().text() + ": the source serves a Mox::GenerationEntity, which can't be copied into a Vel::Dir");
}

TEST_F(ClientTest, WhatIsBelowAPathIsMountedAlone) {
    auto const dir = Dir::newEntity("a");
    served->entryIs(dir);
    generation(dir, "g", 4);
    generation(served, "other", 5);
    Server server(loop, served);
    server.listen(address());
    Client client(loop, address(), here, "copy", quick("/a//g/"));
    ASSERT_TRUE(client.sync(enough)) << client.error();
    EXPECT_EQ(idAt("copy"), 4u);
}

TEST_F(ClientTest, NothingAtThePathIsToldAndWhatAppearsThereIsFound) {
    Server server(loop, served);
    server.listen(address());
    Client client(loop, address(), here, "copy", quick("a/g"));
    std::vector<String> errors;
    client.onErrorIs([&](String const& error) { errors.push_back(error); });
    ASSERT_TRUE(until([&] { return errors.size() == 3; }));
    for (auto const& error : errors) EXPECT_EQ(error, address().text() + ": refused: there is nothing at 'a/g'");
    EXPECT_EQ(client.error(), errors.back());
    EXPECT_EQ(client.fault(), Vel::StreamFault::nothingThere);
    EXPECT_EQ(client.state(), State::empty);
    auto const dir = Dir::newEntity("a");
    served->entryIs(dir);
    generation(dir, "g", 6);
    ASSERT_TRUE(client.sync(enough)) << client.error();
    EXPECT_EQ(idAt("copy"), 6u);
    EXPECT_EQ(client.error(), "");
}

TEST_F(ClientTest, WhatIsReplacedAtThePathIsFollowedAnew) {
    generation(served, "g", 1);
    Server server(loop, served, quickServer());
    server.listen(address());
    Client client(loop, address(), here, "copy", quick("g"));
    ASSERT_TRUE(client.sync(enough)) << client.error();
    served->entryDel("g");
    auto const status = served->createEntity("Redundancy::RedundancyStatus", "g");
    ASSERT_TRUE(until([&] { return here->entry("copy") && here->entry("copy")->fwkType() == status->fwkType(); }))
        << client.error();
    served->entryDel("g");
    ASSERT_TRUE(until([&] { return client.state() == State::stale && !client.error().empty(); }));
    EXPECT_TRUE(here->entry("copy")) << "a copy stays when what was served is gone";
}

TEST_F(ClientTest, NobodyServingIsTold) {
    Client client(loop, address(), here, "copy", quick());
    ASSERT_TRUE(until([&] { return !client.error().empty(); }));
    EXPECT_EQ(client.error(), address().text() + ": there is no such socket; nobody serves there");
    EXPECT_FALSE(client.isConnected());
    EXPECT_FALSE(client.sync(0s));
    EXPECT_FALSE(here->entry("copy"));
}

TEST_F(ClientTest, APortThatNobodyListensAtIsTold) {
    Address place("tcp:127.0.0.1:0");
    {
        Server server(loop, served);
        place = server.listen(place);
    }
    Client client(loop, place, here, "copy", quick());
    ASSERT_TRUE(until([&] { return !client.error().empty(); }));
    EXPECT_EQ(client.error(), place.text() + ": nobody listens there");
}

TEST_F(ClientTest, ASocketWithoutRoomIsTriedAgain) {
    int const listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un where{};
    where.sun_family = AF_UNIX;
    address().path().view().copy(where.sun_path, sizeof where.sun_path - 1);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&where), sizeof where), 0);
    ASSERT_EQ(::listen(listener, 0), 0);
    Client::Options options = quick();
    options.peer.users = {String(std::to_string(::geteuid()))};
    std::deque<Client> clients;
    std::vector<String> errors;
    for (int i = 0; i < 8; ++i) {
        clients.emplace_back(loop, address(), here, Vel::format("copy%d", i), options);
        clients.back().onErrorIs([&](String const& error) { errors.push_back(error); });
    }
    EXPECT_TRUE(until([&] { return errors.size() >= 3; }));
    for (auto const& error : errors) EXPECT_EQ(error, address().text() + ": too many are waiting to be let in there");
    clients.clear();
    ::close(listener);
}

// Whoever comes first has all the room there is, so that the system does not even refuse the others.
TEST_F(ClientTest, APlaceThatDoesNotAnswerIsGivenUpAfterTheTimeThatIsGiven) {
    int const listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in where{};
    socklen_t size = sizeof where;
    where.sin_family = AF_INET;
    where.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&where), sizeof where), 0);
    ASSERT_EQ(::listen(listener, 0), 0);
    ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&where), &size), 0);
    Address const place = Address::tcp("127.0.0.1", ntohs(where.sin_port));
    RawPeer const first(place);
    Client::Options options = quick();
    options.connectTimeout = 20ms;
    std::deque<Client> clients;
    for (int i = 0; i < 3; ++i) clients.emplace_back(loop, place, here, Vel::format("copy%d", i), options);
    std::vector<String> errors;
    clients.back().onErrorIs([&](String const& error) { errors.push_back(error); });
    EXPECT_TRUE(until([&] { return errors.size() >= 3; }));
    for (String const& error : errors)
        EXPECT_EQ(error, place.text() + ": no connection within the time that is given") << "and each time once";
    EXPECT_GE(clients.back().status()->attempts(), errors.size());
    clients.clear();
    ::close(listener);
}

TEST_F(ClientTest, AHostThatHasNoAddressIsTold) {
    Client client(loop, "tcp:[1.2.3.4.5:x]:1", here, "copy", quick());
    ASSERT_TRUE(until([&] { return !client.error().empty(); }));
    EXPECT_EQ(client.error().view().find("tcp:[1.2.3.4.5:x]:1: no address of the host: "), 0u) << client.error();
    EXPECT_EQ(client.status()->connects(), 0u);
}

TEST_F(ClientTest, AClientMayGoWhileAHostIsLookedUp) {
    { Client const client(loop, "tcp:[1.2.3.4.5:x]:1", here, "copy", quick()); }
    loop.run();  // which ends, since nothing waits any more
    EXPECT_EQ(here->entries(), 0u);
}

TEST_F(ClientTest, CallsThatASignalInterruptsAreMadeAgain) {
    generation(served, "g", 1);
    Server server(loop, served);
    server.listen(address());
    for (std::string const call : {"recv", "send"}) {
        SystemFailure const failure(call, EINTR, 5);
        Client client(loop, address(), here, String(call), quick());
        ASSERT_TRUE(client.sync(enough)) << client.error();
        EXPECT_EQ(failure.left(), 0) << call;
        EXPECT_EQ(client.status()->connects(), 1u);
    }
}

TEST_F(ClientTest, WhatTheSystemRefusesIsToldAndTriedAgain) {
    generation(served, "g", 1);
    Server server(loop, served);
    server.listen(address());
    for (std::string const call : {"recv", "send", "socket"}) {
        SystemFailure const failure(call, ENOBUFS);
        Client client(loop, address(), here, String(call), quick());
        std::vector<String> errors;
        client.onErrorIs([&](String const& error) { errors.push_back(error); });
        ASSERT_TRUE(client.sync(enough)) << client.error();
        EXPECT_EQ(failure.left(), 0) << call;
        EXPECT_EQ(errors.size(), 1u) << call;
    }
}

// --- coming back ---

TEST_F(ClientTest, ACopyIsStaleWhileItsServerIsAwayAndThenHearsOfDifferencesOnly) {
    auto const same = generation(served, "same", 1);
    auto const changed = generation(served, "changed", 2);
    generation(served, "gone", 3);
    std::optional<Server> server(std::in_place, loop, served);
    server->listen(address());
    Client client(loop, address(), here, "copy", quick());
    std::vector<State> states;
    client.onStateIs([&](State state) { states.push_back(state); });
    ASSERT_TRUE(client.sync(enough)) << client.error();
    auto const copyOfSame = copyAt("copy/same");
    for (auto const* name : {"copy/same", "copy/changed", "copy/gone"}) observe(*copyAt(name));

    server.reset();
    ASSERT_TRUE(until([&] { return client.state() == State::stale && !client.isConnected(); }));
    EXPECT_EQ(idAt("copy/gone"), 3u) << "a stale copy is as it was";
    changed->generationIs({20, true});
    served->entryDel("gone");
    generation(served, "come", 4);
    ASSERT_TRUE(until([&] { return !client.error().empty(); }));
    EXPECT_EQ(seen, std::vector<U32>());

    server.emplace(loop, served);
    server->listen(address());
    ASSERT_TRUE(client.sync(enough)) << client.error();
    EXPECT_EQ(seen, std::vector<U32>{20});
    EXPECT_EQ(copyAt("copy/same"), copyOfSame);
    EXPECT_FALSE(here->entity("copy/gone"));
    EXPECT_EQ(idAt("copy/come"), 4u);
    EXPECT_EQ(client.error(), "");
    same->generationIs({5, true});
    EXPECT_TRUE(until([&] { return idAt("copy/same") == 5; }));
    EXPECT_EQ(states, (std::vector<State>{State::syncing, State::synced, State::stale, State::syncing, State::synced}));
}

TEST_F(ClientTest, AServerThatComesAndGoesIsAlwaysFoundAgain) {
    auto const original = generation(served, "g", 1);
    Client client(loop, address(), here, "copy", quick());
    for (U32 round = 2; round < 22; ++round) {
        Server server(loop, served);
        server.listen(address());
        original->generationIs({round, true});
        ASSERT_TRUE(until([&] { return idAt("copy/g") == round; })) << client.error();
        if (round % 2 == 0) server.listen(address("other"));
    }
    EXPECT_TRUE(until([&] { return client.state() == State::stale; }));
}

// A client that has been refused often waits long; once it was let in it does not any more.
TEST_F(ClientTest, ASynchronisedClientComesBackAfterTheFirstDelayAgain) {
    generation(served, "g", 1);
    Client::Options options = quick();
    options.firstDelay = 1ms;
    options.lastDelay = 1h;
    int attempts = 0;
    Client client(loop, address(), here, "copy", options);
    client.onErrorIs([&](String const&) { ++attempts; });
    for (int round = 0; round < 12; ++round) {  // the delays would be more than an hour by now
        ASSERT_TRUE(until([&] { return attempts >= 4 * (round + 1); }));
        Server server(loop, served);
        server.listen(address());
        ASSERT_TRUE(client.sync(enough)) << "round " << round << ": " << client.error();
    }
}

// --- changes the other way ---

class WriteTest : public ClientTest {
protected:
    static constexpr Vel::AttributeId attribute = Vel::firstEntityAttributeId;
    void start(Server::Options const& options, bool wantsToWrite = true) {
        server.emplace(loop, served, options);
        server->listen(address());
        Client::Options mine = quick();
        mine.wantsToWrite = wantsToWrite;
        client.emplace(loop, address(), here, "copy", mine);
        ASSERT_TRUE(client->sync(enough)) << client->error();
    }
    void write(U32 id) {
        client->replica().write(*copyAt("copy/g"), attribute,
            Vel::GenericValue(Vel::typeOf<Mox::Generation>(), Vel::valueToStrep(Mox::Generation(id, true))));
    }
    std::string refusal() {
        try {
            write(9);
        } catch (Vel::ReadOnlyException const& error) {
            return error.what();
        }
        return "";
    }
    Ptr<GenerationEntity> original = generation(served, "g", 1);
    std::optional<Server> server;
    std::optional<Client> client;
};

TEST_F(WriteTest, AChangeGoesToTheServerAndComesBack) {
    Server::Options options;
    options.source.mayWrite = true;
    start(options);
    write(9);
    EXPECT_EQ(idAt("copy/g"), 1u);
    EXPECT_TRUE(until([&] { return idAt("copy/g") == 9; }));
    EXPECT_EQ(original->generation(), Mox::Generation(9, true));
}

TEST_F(WriteTest, AnAnswerIsWaitedFor) {
    Server::Options options;
    options.source.mayWrite = true;
    start(options);
    Mount::Answer answer(loop);
    EXPECT_FALSE(answer.isThere());
    client->replica().write(*copyAt("copy/g"), attribute, Mox::Generation(9, true), answer.told());
    EXPECT_EQ(answer.wait(std::chrono::nanoseconds(0)).result, Vel::WriteResult::unknown);
    EXPECT_TRUE(answer.wait(enough).hasChanged());
    EXPECT_TRUE(answer.isThere());
    EXPECT_EQ(idAt("copy/g"), 9u);
}

TEST_F(WriteTest, AnAnswerIsUnknownWhenTheConnectionIsLost) {
    Server::Options options;
    options.source.mayWrite = true;
    start(options);
    Mount::Answer answer(loop);
    client->replica().write(*copyAt("copy/g"), attribute, Mox::Generation(9, true), answer.told());
    server.reset();
    EXPECT_EQ(answer.wait(enough).result, Vel::WriteResult::unknown);
    EXPECT_TRUE(answer.isThere());
    EXPECT_EQ(answer.answer().text, "the connection has ended before the answer came");
}

TEST_F(WriteTest, AServerTakesNoChangesUnlessItIsTold) {
    start({});
    EXPECT_EQ(refusal(), "/copy/g is mounted read-only and takes no changes");
}

TEST_F(WriteTest, AClientThatDoesNotWantToMayNot) {
    Server::Options options;
    options.source.mayWrite = true;
    start(options, false);
    EXPECT_NE(refusal(), "");
}

TEST_F(WriteTest, OnlyWritersMay) {
    Server::Options options;
    options.source.mayWrite = true;
    options.writers = {"54321", "nobody that there is"};
    start(options);
    EXPECT_NE(refusal(), "");
}

TEST_F(WriteTest, AWriterIsKnownByNameOrNumber) {
    Server::Options options;
    options.source.mayWrite = true;
    options.writers = {String(std::to_string(::geteuid()))};
    start(options);
    write(9);
    EXPECT_TRUE(until([&] { return idAt("copy/g") == 9; }));
}

TEST_F(WriteTest, WritersAloneLetNobodyWrite) {
    Server::Options options;
    options.writers = {String(std::to_string(::geteuid()))};
    start(options);
    EXPECT_NE(refusal(), "");
}

// A peer that does not ask, or to whom it was denied, and writes all the same.
TEST_F(WriteTest, AChangeThatIsNotAllowedIsRefusedAndChangesNothing) {
    for (bool const mayWrite : {false, true}) {
        Server::Options options;
        options.source.mayWrite = mayWrite;
        Server one(loop, served, options);
        Address const place = address(mayWrite ? "yes" : "no");
        one.listen(place);
        RawPeer peer(place);
        peer.send(helloFor("g", !mayWrite));
        ASSERT_TRUE(untilSeen([&] { return peer.received().find("Mox::GenerationEntity") != std::string::npos; }));
        U8 const change[] = {0, 0, 0, 14, 11, 0, 0, 0, 1, 0, 0, 1, 2, 0, 0, 0, 77, 1};
        peer.send(change);
        EXPECT_TRUE(untilSeen([&] { return peer.isClosed(); }));
        EXPECT_EQ(original->generation().id(), 1u);
        EXPECT_TRUE(until([&] { return one.connections() == 0; }));
    }
}

}  // namespace
