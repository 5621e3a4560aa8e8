#include "TlsEnds.h"

#include <random>

using namespace MountTest;

namespace {

class TlsHandshakeTest : public TlsTest {
protected:
    // What the two sides say when the handshake of these fails. The client hears of it when it reads: it is done before
    // the server has seen its certificate.
    struct Errors {
        std::string server;
        std::string client;
    };
    static Errors errorsOf(Ends ends) {
        ends.handshake();
        if (ends.clientResult == Result::done) ends.clientResult = receiveResult(*ends.client);
        if (ends.serverResult == Result::done) ends.serverResult = receiveResult(*ends.server);
        EXPECT_EQ(ends.serverResult, Result::failed);
        EXPECT_EQ(ends.clientResult, Result::failed);
        EXPECT_EQ(ends.server->peerName(), "");
        return {ends.server->error().stdString(), ends.client->error().stdString()};
    }
    static Errors errorsOf(
        Mount::PeerOptions const& server, Mount::PeerOptions const& client, Vel::String const& host = "state.example") {
        return errorsOf(connect(server, client, host));
    }
    static std::string text(Vel::String const& s) { return s.stdString(); }
};

TEST_F(TlsHandshakeTest, TellsBothSidesWhoTheOtherIs) {
    Ends const ends = open();
    EXPECT_EQ(ends.server->peerName(), "reader");
    EXPECT_EQ(ends.client->peerName(), "state server");
    EXPECT_EQ(ends.server->error(), "");
}

TEST_F(TlsHandshakeTest, TellsNobodyBeforeItIsDone) {
    Ends ends = connect();
    EXPECT_EQ(ends.client->handshake().result, Result::wantsRead);
    EXPECT_EQ(ends.server->handshake().result, Result::wantsRead);
    EXPECT_EQ(ends.server->peerName(), "");
    EXPECT_EQ(ends.client->peerName(), "");
}

TEST_F(TlsHandshakeTest, WantsToWriteToAFullSocket) {
    Ends ends = connect();
    ends.clientSocket.fill();
    EXPECT_EQ(ends.client->handshake().result, Result::wantsWrite);
    EXPECT_EQ(ends.client->handshake().result, Result::wantsWrite);
}

TEST_F(TlsHandshakeTest, GoesThroughBuffersThatItDoesNotFit) {
    auto files = serverFiles();
    std::string chain = readFile(files.certificate.stdString());
    for (int i = 0; i < 20; ++i) chain += readFile(certificates().authorityPath());
    files.certificate = certificates().write("long.pem", chain);
    Ends ends = connect(options(files), options(clientFiles()), "state.example", 1);
    EXPECT_EQ(ends.client->handshake().result, Result::wantsRead);
    EXPECT_EQ(ends.server->handshake().result, Result::wantsWrite);
    ends.handshake();
    EXPECT_TRUE(ends.areOpen()) << ends.server->error() << ends.client->error();
}

TEST_F(TlsHandshakeTest, IsDoneOnce) {
    Ends ends = open();
    EXPECT_EQ(ends.client->handshake().result, Result::done);
    EXPECT_EQ(ends.server->handshake().result, Result::done);
}

TEST_F(TlsHandshakeTest, FindsTheAuthorityBehindAnother) {
    auto const behind = certificates().issueBehind({"far", {"DNS:state.example"}}, "between 2", "authority");
    Ends ends = connect(options(behind), options(clientFiles()));
    ends.handshake();
    EXPECT_TRUE(ends.areOpen()) << ends.client->error();
    EXPECT_EQ(ends.client->peerName(), "far");
}

TEST_F(TlsHandshakeTest, TrustsAnAuthorityThatIsSignedByAStranger) {
    auto behind = certificates().issueBehind({"far", {"DNS:state.example"}}, "between 3", "authority");
    auto client = clientFiles();
    client.authority = certificates().authorityPath("between 3");
    Ends ends = connect(options(behind), options(client));
    ends.handshake();
    EXPECT_TRUE(ends.areOpen()) << ends.client->error();
}

TEST_F(TlsHandshakeTest, TakesHostsByNameAndByAddress) {
    for (char const* host : {"state.example", "127.0.0.1", "::1", "::1%lo"}) {
        Ends ends = connect(options(serverFiles()), options(clientFiles()), host);
        ends.handshake();
        EXPECT_TRUE(ends.areOpen()) << host << ": " << ends.client->error();
    }
}

TEST_F(TlsHandshakeTest, RefusesAServerOfAnotherHost) {
    auto const [server, client] = errorsOf(options(serverFiles()), options(clientFiles()), "other.example");
    EXPECT_EQ(client,
        "the certificate of CN = state server is refused: hostname mismatch; it is for DNS:state.example, "
        "IP Address:127.0.0.1, IP Address:0:0:0:0:0:0:0:1, and this is other.example");
    EXPECT_EQ(
        server, "the other side refuses the certificate in " + text(serverFiles().certificate) + ": bad certificate");
}

TEST_F(TlsHandshakeTest, RefusesAServerAtAnotherAddress) {
    auto const files = certificates().issue({"state server", {"IP:127.0.0.2"}});
    EXPECT_EQ(errorsOf(options(files), options(clientFiles()), "127.0.0.1").client,
        "the certificate of CN = state server is refused: IP address mismatch; it is for IP Address:127.0.0.2, and "
        "this is 127.0.0.1");
}

TEST_F(TlsHandshakeTest, TakesNoCommonNameForAHost) {
    auto const files = certificates().issue({"state.example", {}});
    EXPECT_EQ(errorsOf(options(files), options(clientFiles())).client,
        "the certificate of CN = state.example is refused: hostname mismatch; it is for no host at all (it has no "
        "subjectAltName), and this is state.example");
}

TEST_F(TlsHandshakeTest, RefusesAClientOfAStrangerAuthority) {
    auto files = certificates().issue({"mallory", {}}, "stranger");
    files.authority = certificates().authorityPath();
    auto const [server, client] = errorsOf(options(serverFiles()), options(files));
    EXPECT_EQ(server,
        "the certificate of CN = mallory is refused: unable to get local issuer certificate; it is signed by CN = "
        "stranger, which is no authority in " +
            certificates().authorityPath());
    EXPECT_EQ(client, "the other side refuses the certificate in " + text(files.certificate) + ": unknown ca");
}

TEST_F(TlsHandshakeTest, RefusesAServerOfAStrangerAuthority) {
    auto files = certificates().issue({"mallory", {"DNS:state.example"}}, "stranger");
    files.authority = certificates().authorityPath();
    auto const [server, client] = errorsOf(options(files), options(clientFiles()));
    EXPECT_EQ(client,
        "the certificate of CN = mallory is refused: unable to get local issuer certificate; it is signed by CN = "
        "stranger, which is no authority in " +
            certificates().authorityPath());
    EXPECT_EQ(server, "the other side refuses the certificate in " + text(files.certificate) + ": unknown ca");
}

TEST_F(TlsHandshakeTest, RefusesAnAuthorityOfTheRightNameOnly) {
    Certificates others;
    auto files = others.issue({"mallory", {}});
    files.authority = certificates().authorityPath();
    EXPECT_EQ(errorsOf(options(serverFiles()), options(files)).server,
        "the certificate of CN = mallory is refused: certificate signature failure; it is signed by CN = authority, "
        "which is no authority in " +
            certificates().authorityPath());
}

TEST_F(TlsHandshakeTest, RefusesWhatAClientHasSigned) {
    auto const files = certificates().issueBehind({"admin", {}}, "reader 2", "authority", false);
    EXPECT_EQ(errorsOf(options(serverFiles()), options(files)).server,
        "the certificate of CN = admin, signed by CN = reader 2, is refused: invalid CA certificate");
}

TEST_F(TlsHandshakeTest, RefusesAnExpiredCertificate) {
    auto const files = certificates().issue({"old reader", {}, -2});
    auto const [server, client] = errorsOf(options(serverFiles()), options(files));
    EXPECT_TRUE(server.starts_with("the certificate of CN = old reader is refused: certificate has expired on "))
        << server;
    EXPECT_TRUE(server.ends_with(" GMT")) << server;
    EXPECT_EQ(client, "the other side refuses the certificate in " + text(files.certificate) + ": certificate expired");
}

TEST_F(TlsHandshakeTest, NamesTheSignerThatIsAtFault) {
    auto files = certificates().issueBehind({"far", {}}, "between 5", "stranger");
    files.authority = certificates().authorityPath();
    EXPECT_EQ(errorsOf(options(serverFiles()), options(files)).server,
        "the certificate of CN = far, signed by CN = between 5, is refused: unable to get local issuer certificate; "
        "it is signed by CN = stranger, which is no authority in " +
            certificates().authorityPath());
}

TEST_F(TlsHandshakeTest, RefusesAServersCertificateOfAClient) {
    auto const files = certificates().issue({"state server", {"DNS:state.example"}, 1, "serverAuth"});
    EXPECT_EQ(errorsOf(options(serverFiles()), options(files)).server,
        "the certificate of CN = state server is refused: unsuitable certificate purpose; its extendedKeyUsage is for "
        "the other side of a connection");
}

TEST_F(TlsHandshakeTest, RefusesRevokedCertificates) {
    auto const lost = certificates().issue({"lost", {}});
    auto server = serverFiles();
    server.authority = certificates().authorityRevoking("authority", {lost});
    EXPECT_EQ(errorsOf(options(server), options(lost)).server,
        "the certificate of CN = lost is refused: certificate revoked; the lists of revoked certificates are in " +
            text(server.authority));
    Ends ends = connect(options(server), options(clientFiles()));
    ends.handshake();
    EXPECT_TRUE(ends.areOpen()) << ends.server->error();
}

TEST_F(TlsHandshakeTest, LetsInOnlyTheNamesThatAreListed) {
    auto const [server, client] = errorsOf(options(serverFiles(), {"writer", "read"}), options(clientFiles()));
    EXPECT_EQ(server, "the certificate of CN = reader is refused: its common name is none of those that are let in");
    EXPECT_EQ(
        client, "the other side refuses the certificate in " + text(clientFiles().certificate) + ": bad certificate");
    Ends ends = connect(options(serverFiles(), {"writer", "reader"}), options(clientFiles(), {"state server"}));
    ends.handshake();
    EXPECT_TRUE(ends.areOpen()) << ends.server->error() << ends.client->error();
}

TEST_F(TlsHandshakeTest, ChecksTheNameOfTheServer) {
    EXPECT_EQ(errorsOf(options(serverFiles()), options(clientFiles(), {"another server"})).client,
        "the certificate of CN = state server is refused: its common name is none of those that are let in");
}

TEST_F(TlsHandshakeTest, LetsNobodyWithoutANameInByAnEmptyName) {
    auto const files = certificates().issue({"", {"DNS:x"}});
    EXPECT_EQ(errorsOf(options(serverFiles(), {""}), options(files)).server,
        "the certificate of (no name) is refused: its common name is none of those that are let in");
}

TEST_F(TlsHandshakeTest, TakesNoNameFromTwoOrFromControlCharacters) {
    for (auto const& [name, second] : {std::pair<std::string, std::string>("reader", "admin"), {"reader\n", ""},
             {"reader\x7F", ""}, {"reader\xC2\x9B", ""}}) {
        Ends ends = connect(
            options(serverFiles()), options(certificates().issue({.name = name, .hosts = {}, .secondName = second})));
        ends.handshake();
        EXPECT_TRUE(ends.areOpen()) << ends.server->error();
        EXPECT_EQ(ends.server->peerName(), "");
    }
}

TEST_F(TlsHandshakeTest, TellsNamesInUtf8) {
    Ends ends = connect(options(serverFiles()), options(certificates().issue({"J\xC3\xBCrgen", {}})));
    ends.handshake();
    EXPECT_EQ(ends.server->peerName(), "J\xC3\xBCrgen");
}

TEST_F(TlsHandshakeTest, EscapesWhatIsNotToBeInALog) {
    auto files = certificates().issue({"a\nb\x1B[2J\xC3\xBC", {}}, "stranger");
    files.authority = certificates().authorityPath();
    std::string const error = errorsOf(options(serverFiles()), options(files)).server;
    EXPECT_TRUE(error.starts_with("the certificate of CN = a\\0Ab\\1B[2J\\C3\\BC is refused")) << error;
}

TEST_F(TlsHandshakeTest, SaysThatTheOtherSideSpeaksSomethingElse) {
    for (bool const toServer : {true, false}) {
        Ends ends = connect();
        Socket const& from = toServer ? ends.clientSocket : ends.serverSocket;
        Channel& to = toServer ? *ends.server : *ends.client;
        from.write("\x16\x03\x01\xFF\xFF no TLS at all");
        Result result = to.handshake().result;
        if (result == Result::wantsRead) result = to.handshake().result;
        EXPECT_EQ(result, Result::failed);
        EXPECT_EQ(to.error(), "the TLS handshake failed: packet length too long");
    }
}

TEST_F(TlsHandshakeTest, SaysThatTheOtherSideSpeaksHttp) {
    Ends ends = connect();
    ends.clientSocket.write("GET / HTTP/1.1\r\nHost: state.example\r\n\r\n");
    EXPECT_EQ(ends.server->handshake().result, Result::failed);
    EXPECT_EQ(ends.server->error(), "the TLS handshake failed: http request");
}

TEST_F(TlsHandshakeTest, SaysThatTheConnectionWasClosed) {
    Ends ends = connect();
    ends.client->handshake();
    ends.server->handshake();
    ends.clientSocket.read();
    ends.clientSocket.close();
    EXPECT_EQ(ends.server->handshake().result, Result::failed);
    EXPECT_EQ(ends.server->error(), "the connection was closed during the TLS handshake");
}

TEST_F(TlsHandshakeTest, TakesAFarewellForAFailure) {
    Ends ends = connect();
    ends.client->handshake();
    ends.server->handshake();
    ends.clientSocket.write({"\x15\x03\x03\x00\x02\x01\x00", 7});
    EXPECT_EQ(ends.server->handshake().result, Result::failed);
    EXPECT_EQ(ends.server->error(), "the connection was closed during the TLS handshake");
}

TEST_F(TlsHandshakeTest, SaysThatTheAnswerWasNotRead) {
    Ends ends = connect();
    ends.client->handshake();
    ends.server->handshake();
    ends.clientSocket.close();
    EXPECT_EQ(ends.server->handshake().result, Result::failed);
    EXPECT_EQ(ends.server->error(), "the TLS handshake failed: Connection reset by peer (ECONNRESET)");
}

TEST_F(TlsHandshakeTest, SaysThatNobodyIsThereToAnswer) {
    Ends ends = connect();
    ends.client->handshake();
    ends.clientSocket.close();
    EXPECT_EQ(ends.server->handshake().result, Result::failed);
    EXPECT_EQ(ends.server->error(), "the TLS handshake failed: Broken pipe (EPIPE)");
}

TEST_F(TlsHandshakeTest, StaysFailed) {
    Ends ends = connect();
    ends.clientSocket.write("GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(ends.server->handshake().result, Result::failed);
    EXPECT_EQ(ends.server->handshake().result, Result::failed);
    EXPECT_EQ(receiveResult(*ends.server), Result::failed);
    EXPECT_EQ(ends.server->send(asBytes("x")).result, Result::failed);
    ends.server->finish();
    EXPECT_EQ(ends.server->error(), "the TLS handshake failed: http request");
}

TEST_F(TlsHandshakeTest, OutlivesItsContext) {
    auto [a, b] = socketPair();
    Ends ends{std::move(a), std::move(b), {}, {}};
    {
        TlsContext const server(TlsContext::Side::server, options(serverFiles(), {"reader"}));
        TlsContext const client(TlsContext::Side::client, options(clientFiles(), {"state server"}));
        ends.server = server.channel(ends.serverSocket.number(), "");
        ends.client = client.channel(ends.clientSocket.number(), "state.example");
    }
    ends.handshake();
    EXPECT_TRUE(ends.areOpen()) << ends.server->error() << ends.client->error();
}

// Between two sides that are sound, one bit of what goes over the connection is another: nobody is fooled by it.
TEST_F(TlsHandshakeTest, FailsWhenItIsTamperedWith) {
    TlsContext const serverContext(TlsContext::Side::server, options(serverFiles()));
    TlsContext const clientContext(TlsContext::Side::client, options(clientFiles()));
    std::mt19937 random(1);
    for (int round = 0; round < 200; ++round) {
        auto [a, serverSide] = socketPair();
        auto [b, clientSide] = socketPair();
        Ends ends{std::move(a), std::move(b), {}, {}};
        ends.server = serverContext.channel(ends.serverSocket.number(), "");
        ends.client = clientContext.channel(ends.clientSocket.number(), "state.example");

        std::size_t place = random() % 1200;  // in what the client sends, or the server
        if (place == 2) ++place;              // of a version number that means nothing any more
        bool isChanged = false;
        auto const relay = [&](Socket const& from, Socket const& to, bool change) {
            std::string bytes = from.read();
            if (change && !isChanged) {
                isChanged = place < bytes.size();
                if (isChanged)
                    bytes[place] = static_cast<char>(bytes[place] ^ (1 << random() % 8));
                else
                    place -= bytes.size();
            }
            if (!bytes.empty()) ::send(to.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            return !bytes.empty();
        };
        bool moved = true;
        while (moved) {
            ends.handshake();
            bool const toServer = relay(clientSide, serverSide, round % 2 == 0);
            moved = relay(serverSide, clientSide, round % 2 == 1) || toServer;
        }
        EXPECT_EQ(ends.areOpen(), !isChanged) << "round " << round << ", byte " << place;
    }
}

}  // namespace
