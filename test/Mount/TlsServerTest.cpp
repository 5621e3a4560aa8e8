#include "Certificates.h"
#include "MountFixture.h"
#include "SystemFailures.h"

#include "Vel/base/Exception.h"

#include <deque>

namespace {

using namespace MountTest;
using Vel::U16;

class TlsServerTest : public SharedTest {
protected:
    Server::Options serving() {
        Server::Options options = quickServer();
        options.peer.tls = certificates.issue({"state server", {"IP:127.0.0.1", "DNS:localhost"}});
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

// Of a host with several addresses each is tried.
TEST_F(TlsServerTest, AServerIsFoundByTheNameOfItsHost) {
    Server server(loop, served, serving());
    U16 const port = server.listen("tls:127.0.0.1:0").port();
    Client client(loop, Address::tls("localhost", port), here, "copy", reading());
    EXPECT_TRUE(client.sync(enough)) << client.error();
}

TEST_F(TlsServerTest, AClientHasToNameTheHost) {
    Server server(loop, served, serving());
    Address const all = Address::tls("", server.listen("tls:127.0.0.1:0").port());
    Client client(loop, all, here, "copy", reading());
    ASSERT_TRUE(until([&] { return !client.error().empty(); }));
    EXPECT_EQ(client.error(), all.text() + ": TLS needs to know which host it connects to");
}

TEST_F(TlsServerTest, CallsThatASignalInterruptsAreMadeAgain) {
    Server server(loop, served, serving());
    Address const place = server.listen("tls:127.0.0.1:0");
    for (std::string const call : {"recv", "send"}) {
        SystemFailure const failure(call, EINTR, 5);
        Client client(loop, place, here, String(call), reading());
        ASSERT_TRUE(client.sync(enough)) << client.error();
        EXPECT_EQ(failure.left(), 0) << call;
        EXPECT_EQ(client.status()->connects(), 1u);
    }
}

// On either side, and at any time.
TEST_F(TlsServerTest, WhatTheSystemRefusesIsToldAndTriedAgain) {
    Server server(loop, served, serving());
    Address const place = server.listen("tls:127.0.0.1:0");
    for (std::string const call : {"recv", "send"}) {
        SystemFailure const failure(call, ENOBUFS);
        Client client(loop, place, here, String(call), reading());
        std::vector<String> errors;
        client.onErrorIs([&](String const& error) { errors.push_back(error); });
        ASSERT_TRUE(client.sync(enough)) << client.error();
        EXPECT_EQ(failure.left(), 0) << call;
        EXPECT_LE(errors.size(), 1u) << call;  // none when it was the end of the client before
    }
}

// Of all addresses of this machine, or of a host with several.
TEST_F(TlsServerTest, AKindOfAddressThatTheMachineDoesNotSpeakIsLeftOut) {
    U16 const port = Server(loop, served, serving()).listen("tls:127.0.0.1:0").port();
    Address const all = Address::tls("", port);
    for (int const failures : {1, 2}) {
        Server server(loop, served, serving());
        SystemFailure const failure("socket", EAFNOSUPPORT, failures);
        if (failures == 1) {
            EXPECT_EQ(server.listen(all), all);
            EXPECT_EQ(server.status()->address(), all.text());
        } else {
            EXPECT_THROW(server.listen(all), Vel::ErrnoException) << "and when none is left it is an error";
            EXPECT_EQ(server.status()->address(), "");
        }
    }
}

TEST_F(TlsServerTest, AClientWithoutTheRightFilesIsToldWhy) {
    Server server(loop, served, serving());
    Address const place = server.listen("tls:127.0.0.1:0");
    Client::Options options = quick();
    options.peer.tls = certificates.issue({"reader", {}}, "stranger");
    options.peer.tls.authority = certificates.authorityPath();
    Client client(loop, place, here, "copy", options);
    ASSERT_TRUE(until([&] { return !client.error().empty(); }));
    EXPECT_EQ(client.error(),
        place.text() + ": the other side refuses the certificate in " + options.peer.tls.certificate + ": unknown ca");
    EXPECT_TRUE(untilSeen([&] { return server.status()->failed() != 0; }));
}

TEST_F(TlsServerTest, OnlyWritersMayWrite) {
    Server::Options options = serving();
    options.source.mayWrite = true;
    options.writers = {"writer"};
    Server server(loop, served, options);
    Address const place = server.listen("tls:127.0.0.1:0");
    for (std::string const name : {"reader", "writer"}) {
        Client::Options mine = quick();
        mine.wantsToWrite = true;
        mine.peer.tls = certificates.issue({name, {}});
        Client client(loop, place, here, String(name), mine);
        ASSERT_TRUE(client.sync(enough)) << client.error();
        EXPECT_EQ(client.replica().mayWrite(), name == "writer");
    }
}

}  // namespace
