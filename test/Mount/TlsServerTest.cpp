#include "Certificates.h"
#include "MountFixture.h"

#include <deque>

namespace {

using namespace MountTest;

class TlsServerTest : public SharedTest {
protected:
    Server::Options serving() {
        Server::Options options = quickServer();
        options.peer.tls = certificates.issue({"state server", {"IP:127.0.0.1"}});
        return options;
    }
    Client::Options reading() {
        Client::Options options = quick();
        options.peer.tls = certificates.issue({"reader", {}});
        return options;
    }
    Certificates certificates;
    Ptr<GenerationEntity> original = generation(served, "g", 1);
};

TEST_F(TlsServerTest, ACopyIsMadeAndFollows) {
    Server server(loop, served, serving());
    Client client(loop, server.listen("tls:127.0.0.1:0"), here, "copy", reading());
    ASSERT_TRUE(client.sync(enough)) << client.error();
    original->generationIs({2, true});
    EXPECT_TRUE(until([&] { return idAt("copy/g") == 2; }));
    EXPECT_EQ(server.status()->failed(), 0u);
}

// A handshake that does not go on is a hello that does not come.
TEST_F(TlsServerTest, HandshakesThatDoNotGoOnLockNobodyOut) {
    Server::Options options = serving();
    options.newcomers = 3;
    Server server(loop, served, options);
    Address const place = server.listen("tls:127.0.0.1:0");
    std::deque<RawPeer> silent;
    for (int i = 0; i < 10; ++i) silent.emplace_back(place);
    ASSERT_TRUE(until([&] { return server.status()->accepted() == 10; }));
    EXPECT_EQ(server.connections(), 3u);
    EXPECT_TRUE(silent[6].isClosed());
    EXPECT_FALSE(silent[7].isClosed());
    Client client(loop, place, here, "copy", reading());
    EXPECT_TRUE(client.sync(enough)) << client.error();
    EXPECT_EQ(server.connections(), 3u) << "two of the silent ones, and the client";
}

TEST_F(TlsServerTest, AHandshakeTakesNoLongerThanAHelloMay) {
    Server::Options options = serving();
    options.peer.helloTimeout = 20ms;
    Server server(loop, served, options);
    RawPeer silent(server.listen("tls:127.0.0.1:0"));
    EXPECT_TRUE(untilSeen([&] { return silent.isClosed(); }));
    EXPECT_TRUE(until([&] { return server.status()->failed() == 1; }));
    EXPECT_EQ(server.status()->error(), "not a word came within 0.02 s");
}

}  // namespace
