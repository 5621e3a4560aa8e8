#include "TlsEnds.h"

#include "../Mox/Allocations.h"

#include <csignal>
#include <random>

#include <openssl/err.h>
#include <openssl/ssl.h>

using namespace MountTest;

namespace {

using TlsChannelTest = TlsTest;

Bytes randomBytes(std::mt19937& random, std::size_t size) {
    Bytes bytes(size);
    for (auto& byte : bytes) byte = static_cast<Vel::U8>(random());
    return bytes;
}

// One direction of a connection: what one side has still to send, and what the other has got of it.
class Flow {
public:
    Flow(Channel& from, Socket const& fromSocket, Channel& to, Socket const& toSocket, Bytes const& all)
        : from_(from), fromSocket_(fromSocket), to_(to), toSocket_(toSocket), all_(all) {}

    Bytes const& got() const { return got_; }
    bool isDone() const { return got_.size() == all_.size(); }
    // Gives the channel other memory each time, and sometimes more bytes than before.
    bool step(std::mt19937& random) {
        bool moved = false;
        if (sent_ < all_.size() && (sending_ == Result::done || isReady(sending_, fromSocket_))) {
            std::size_t const left = all_.size() - sent_;
            offered_ = std::min(left, (sending_ == Result::done ? 0 : offered_) + random() % 40000 + 1);
            Bytes const moving(all_.begin() + static_cast<std::ptrdiff_t>(sent_),
                all_.begin() + static_cast<std::ptrdiff_t>(sent_ + offered_));
            auto const [result, bytes] = from_.send(moving);
            sending_ = result;
            sent_ += bytes;
            moved = true;
        }
        if (receiving_ == Result::done || isReady(receiving_, toSocket_)) {
            Bytes into(random() % 40000 + 1);
            auto const [result, bytes] = to_.receive(into);
            receiving_ = result;
            got_.insert(got_.end(), into.begin(), into.begin() + static_cast<std::ptrdiff_t>(bytes));
            moved = true;
        }
        return moved;
    }

private:
    Channel& from_;
    Socket const& fromSocket_;
    Channel& to_;
    Socket const& toSocket_;
    Bytes const& all_;
    std::size_t sent_ = 0;
    Bytes got_;
    Result sending_ = Result::done;
    Result receiving_ = Result::done;
    std::size_t offered_ = 0;
};

void expectBytesBothWays(Ends const& ends, unsigned seed) {
    std::mt19937 random(seed);
    Bytes const out = randomBytes(random, 400'000);
    Bytes const in = randomBytes(random, 300'000);
    Flow there(*ends.client, ends.clientSocket, *ends.server, ends.serverSocket, out);
    Flow back(*ends.server, ends.serverSocket, *ends.client, ends.clientSocket, in);
    while (!there.isDone() || !back.isDone()) {
        bool const moved = there.step(random);
        if (!back.step(random) && !moved) break;
    }
    EXPECT_TRUE(there.got() == out) << there.got().size();
    EXPECT_TRUE(back.got() == in) << back.got().size();
}

TEST_F(TlsChannelTest, CarriesBytesBothWays) { expectBytesBothWays(open(), 1); }

TEST_F(TlsChannelTest, CarriesBytesThroughTheSmallestBuffers) { expectBytesBothWays(open(1), 2); }

TEST_F(TlsChannelTest, TakesOneRecordAtATime) {
    Ends ends = open();
    Bytes const bytes(100'000, 7);
    auto const [result, sent] = ends.client->send(bytes);
    EXPECT_EQ(result, Result::done);
    EXPECT_EQ(sent, 16384u);
}

TEST_F(TlsChannelTest, WantsToReadWhenNothingIsThere) {
    Ends ends = open();
    EXPECT_EQ(receiveResult(*ends.server), Result::wantsRead);
    EXPECT_EQ(receiveResult(*ends.client), Result::wantsRead);
}

TEST_F(TlsChannelTest, KeepsWhatTheReaderHasNoRoomFor) {
    Ends ends = open();
    ends.client->send(asBytes("abcdef"));
    Bytes into(4);
    EXPECT_EQ(ends.server->receive(into).bytes, 4u);
    EXPECT_EQ(ends.serverSocket.waiting(), 0u);
    EXPECT_EQ(ends.server->receive(into).bytes, 2u);
    EXPECT_EQ(ends.server->receive(into).result, Result::wantsRead);
}

TEST_F(TlsChannelTest, TellsARecordOnceItHasGoneWhole) {
    Ends ends = open(1);
    Bytes bytes(10'000, 1);
    Channel::Outcome outcome = ends.client->send(bytes);
    while (outcome.result == Result::done) outcome = ends.client->send(bytes);
    EXPECT_EQ(outcome.result, Result::wantsWrite);
    EXPECT_EQ(outcome.bytes, 0u);
    bytes.resize(50'000, 2);  // more behind them, elsewhere
    while (outcome.result == Result::wantsWrite) {
        receiveResult(*ends.server);
        outcome = ends.client->send(bytes);
    }
    EXPECT_EQ(outcome.result, Result::done);
    EXPECT_EQ(outcome.bytes, 10'000u);
}

TEST_F(TlsChannelTest, FailsWhenFewerBytesAreGivenAgain) {
    Ends ends = open(1);
    Bytes const bytes(10'000, 1);
    while (ends.client->send(bytes).result == Result::done) {}
    EXPECT_EQ(ends.client->send(std::span(bytes).first(9'999)).result, Result::failed);
    EXPECT_EQ(ends.client->error(), "fewer bytes are to be sent than when it was tried before");
}

TEST_F(TlsChannelTest, DoesNothingWithNoBytes) {
    Ends ends = open();
    EXPECT_EQ(ends.client->send({}).result, Result::done);
    EXPECT_EQ(ends.client->receive({}).result, Result::done);
    EXPECT_EQ(ends.serverSocket.waiting(), 0u);
}

// --- ends ---

TEST_F(TlsChannelTest, FinishIsTheEndForTheOtherSide) {
    Ends ends = open();
    ends.client->send(asBytes("last"));
    ends.client->finish();
    EXPECT_EQ(receiveText(*ends.server), "last");
    EXPECT_EQ(receiveResult(*ends.server), Result::end);
    EXPECT_EQ(receiveResult(*ends.server), Result::end);
    EXPECT_EQ(ends.server->error(), "");
}

TEST_F(TlsChannelTest, ReceivesAfterItHasFinished) {
    Ends ends = open();
    ends.client->finish();
    ends.client->finish();
    EXPECT_EQ(receiveResult(*ends.server), Result::end);
    EXPECT_EQ(ends.server->send(asBytes("answer")).result, Result::done);
    EXPECT_EQ(receiveText(*ends.client), "answer");
    ends.server->finish();
    EXPECT_EQ(receiveResult(*ends.client), Result::end);
}

TEST_F(TlsChannelTest, SendsNothingAfterItHasFinished) {
    Ends ends = open();
    ends.client->finish();
    EXPECT_EQ(ends.client->send(asBytes("x")).result, Result::failed);
    EXPECT_EQ(ends.client->error(), "the TLS connection failed: protocol is shutdown");
}

TEST_F(TlsChannelTest, FinishesWithoutWaiting) {
    Ends ends = open(1);
    Bytes const bytes(10'000, 1);
    while (ends.client->send(bytes).result == Result::done) {}
    ends.client->finish();
    Ends young = connect();
    young.client->finish();  // before the handshake
    EXPECT_EQ(young.serverSocket.waiting(), 0u);
}

TEST_F(TlsChannelTest, TakesACutForNoEnd) {
    Ends ends = open();
    ends.client->send(asBytes("all of it?"));
    ends.clientSocket.close();
    EXPECT_EQ(receiveText(*ends.server), "all of it?");
    EXPECT_EQ(receiveResult(*ends.server), Result::failed);
    EXPECT_EQ(ends.server->error(), "the connection was cut");
}

TEST_F(TlsChannelTest, TakesACutInARecordForNoEnd) {
    Ends ends = open();
    ends.client->send(asBytes("half of it"));
    std::string const bytes = ends.serverSocket.read();
    auto [a, b] = socketPair();
    ASSERT_EQ(::dup2(a.number(), ends.serverSocket.number()), ends.serverSocket.number());
    b.write(bytes.substr(0, bytes.size() / 2));
    EXPECT_EQ(receiveResult(*ends.server), Result::wantsRead);
    a.close();
    b.close();
    EXPECT_EQ(receiveResult(*ends.server), Result::failed);
    EXPECT_EQ(ends.server->error(), "the connection was cut");
}

TEST_F(TlsChannelTest, RefusesBytesThatTheOtherSideDidNotSend) {
    Ends ends = open();
    std::string forged(37, 'x');
    forged.replace(0, 5, "\x17\x03\x03\x00\x20", 5);
    ends.clientSocket.write(forged);
    EXPECT_EQ(receiveResult(*ends.server), Result::failed);
    EXPECT_EQ(ends.server->error(), "the TLS connection failed: decryption failed or bad record mac");
    EXPECT_EQ(receiveResult(*ends.client), Result::failed);
    EXPECT_EQ(ends.client->error(), "the other side ended the TLS connection: bad record mac");
}

TEST_F(TlsChannelTest, RefusesBytesThatCameBefore) {
    Ends ends = open();
    ends.client->send(asBytes("pay 10"));
    std::string const bytes = ends.serverSocket.read();
    ends.clientSocket.write(bytes + bytes);
    EXPECT_EQ(receiveText(*ends.server), "pay 10");
    EXPECT_EQ(receiveResult(*ends.server), Result::failed);
}

TEST_F(TlsChannelTest, OutlivesASendToAConnectionThatIsGone) {
    std::signal(SIGPIPE, SIG_DFL);  // which ends the process
    Ends ends = open();
    ends.serverSocket.close();
    EXPECT_EQ(ends.client->send(asBytes("x")).result, Result::failed);
    EXPECT_EQ(ends.client->error(), "the TLS connection failed: Broken pipe (EPIPE)");
    Ends others = open();
    others.serverSocket.close();
    others.client->finish();
}

TEST_F(TlsChannelTest, SendingTellsWhyTheOtherSideHasGone) {
    Ends ends = connect(options(serverFiles(), {"writer"}), options(clientFiles()));
    ends.handshake();
    ASSERT_EQ(ends.clientResult, Result::done);
    ASSERT_EQ(ends.serverResult, Result::failed);
    ends.serverSocket.close();
    EXPECT_EQ(ends.client->send(asBytes("hello")).result, Result::failed);
    EXPECT_EQ(ends.client->error(),
        "the other side refuses the certificate in " + clientFiles().certificate.stdString() + ": bad certificate");
}

TEST_F(TlsChannelTest, IsNotMisledByErrorsThatOthersLeft) {
    Ends ends = open();
    ERR_raise(ERR_LIB_USER, 1);
    EXPECT_EQ(receiveResult(*ends.server), Result::wantsRead);
    ERR_raise(ERR_LIB_USER, 1);
    ends.clientSocket.close();
    EXPECT_EQ(receiveResult(*ends.server), Result::failed);
    EXPECT_EQ(ends.server->error(), "the connection was cut");
    EXPECT_EQ(ERR_peek_error(), 0u);
}

// --- a side that is not ours ---

// Drives OpenSSL by hand, on a socket that does not block.
struct Raw {
    SSL_CTX* context;
    SSL* ssl;

    Raw(Socket const& socket, Mount::TlsFiles const* files, int version = TLS1_3_VERSION)
        : context(SSL_CTX_new(TLS_client_method())) {
        SSL_CTX_set_max_proto_version(context, version);
        if (files) {
            SSL_CTX_use_certificate_chain_file(context, files->certificate.charPtr());
            SSL_CTX_use_PrivateKey_file(context, files->key.charPtr(), SSL_FILETYPE_PEM);
        }
        ssl = SSL_new(context);
        SSL_set_fd(ssl, socket.number());
        SSL_set_connect_state(ssl);
    }
    Raw(Raw const&) = delete;
    Raw& operator=(Raw const&) = delete;
    ~Raw() {
        SSL_free(ssl);
        SSL_CTX_free(context);
        ERR_clear_error();
    }
};

class TlsStrangerTest : public TlsTest {
protected:
    Ends ends_ = connect();

    void handshake(Raw& raw) {
        while (SSL_do_handshake(raw.ssl) != 1) {
            ends_.serverResult = ends_.server->handshake().result;
            if (ends_.serverResult == Result::failed) return;
        }
        ends_.serverResult = ends_.server->handshake().result;
    }
};

TEST_F(TlsStrangerTest, WithoutACertificateIsRefused) {
    Raw raw(ends_.clientSocket, nullptr);
    handshake(raw);
    EXPECT_EQ(ends_.serverResult, Result::failed);
    EXPECT_EQ(ends_.server->error(), "the other side shows no certificate");
}

TEST_F(TlsStrangerTest, WithAnOlderProtocolIsRefused) {
    Raw raw(ends_.clientSocket, &clientFiles(), TLS1_2_VERSION);
    handshake(raw);
    EXPECT_EQ(ends_.serverResult, Result::failed);
    EXPECT_EQ(ends_.server->error(), "the TLS handshake failed: unsupported protocol");
}

TEST_F(TlsStrangerTest, GetsNoSessionToTakeUpAgain) {
    Raw raw(ends_.clientSocket, &clientFiles());
    handshake(raw);
    ASSERT_EQ(ends_.serverResult, Result::done);
    EXPECT_EQ(ends_.clientSocket.waiting(), 0u);
}

TEST_F(TlsStrangerTest, SeesOnlyWhatTheCertificatesFileHolds) {
    Raw raw(ends_.clientSocket, &clientFiles());
    handshake(raw);
    EXPECT_EQ(sk_X509_num(SSL_get_peer_cert_chain(raw.ssl)), 1);
}

TEST_F(TlsStrangerTest, MayAskForNewKeys) {
    Raw raw(ends_.clientSocket, &clientFiles());
    handshake(raw);
    ASSERT_EQ(SSL_key_update(raw.ssl, SSL_KEY_UPDATE_REQUESTED), 1);
    ASSERT_EQ(SSL_write(raw.ssl, "new", 3), 3);
    EXPECT_EQ(receiveText(*ends_.server), "new");
    EXPECT_EQ(ends_.server->send(asBytes("keys")).result, Result::done);
    char into[10];
    EXPECT_EQ(SSL_read(raw.ssl, into, sizeof into), 4);
}

TEST_F(TlsStrangerTest, IsAnsweredOnceThereIsRoom) {
    Raw raw(ends_.clientSocket, &clientFiles());
    handshake(raw);
    ends_.serverSocket.fill();
    ASSERT_EQ(SSL_key_update(raw.ssl, SSL_KEY_UPDATE_REQUESTED), 1);
    ASSERT_EQ(SSL_write(raw.ssl, "new", 3), 3);
    EXPECT_EQ(receiveText(*ends_.server), "new");
    EXPECT_EQ(ends_.server->send(asBytes("keys")).result, Result::wantsWrite);
    while (!ends_.clientSocket.read().empty()) {}
    EXPECT_EQ(ends_.server->send(asBytes("keys")).bytes, 4u);
    char into[10];
    EXPECT_EQ(SSL_read(raw.ssl, into, sizeof into), 4);
}

// OpenSSL itself makes a few short-lived objects for each record.
TEST_F(TlsStrangerTest, AllocatesAsMuchAsOneOfOurs) {
    if (!ALLOCATIONS_ARE_COUNTED) GTEST_SKIP() << "allocations are not counted in this build";
    Raw raw(ends_.clientSocket, &clientFiles());
    handshake(raw);
    Bytes const bytes(16384, 1);
    Bytes into(20000);
    Channel& ours = *ends_.server;
    for (std::size_t size = 1; size <= bytes.size(); size *= 2) {
        int const n = static_cast<int>(size);
        auto const toSend = allocationsOf([&] { ours.send(std::span(bytes).first(size)); });
        auto const toRead = allocationsOf([&] { SSL_read(raw.ssl, into.data(), 20000); });
        auto const toWrite = allocationsOf([&] { SSL_write(raw.ssl, bytes.data(), n); });
        auto const toReceive = allocationsOf([&] { EXPECT_EQ(ours.receive(into).bytes, size); });
        EXPECT_EQ(allocationsOf([&] { EXPECT_EQ(ours.receive(into).result, Result::wantsRead); }), 0u);
        if (size == 1) continue;  // buffers are made
        EXPECT_EQ(toSend, toWrite);
        EXPECT_EQ(toReceive, toRead);
    }
}

// The answer to the key update must wait until the record that has begun is through.
TEST_F(TlsStrangerTest, MayAskForNewKeysWhileARecordIsUnderWay) {
    ends_ = connect(1);
    Raw raw(ends_.clientSocket, &clientFiles());
    handshake(raw);
    Bytes const bytes(12'000, 5);
    std::size_t sent = 0;
    Channel::Outcome outcome{Result::done};
    while (outcome.result == Result::done) {
        outcome = ends_.server->send(bytes);
        sent += outcome.bytes;
    }
    ASSERT_EQ(outcome.result, Result::wantsWrite);
    ASSERT_EQ(SSL_key_update(raw.ssl, SSL_KEY_UPDATE_REQUESTED), 1);
    ASSERT_EQ(SSL_write(raw.ssl, "new", 3), 3);
    EXPECT_EQ(receiveText(*ends_.server), "new");
    std::size_t got = 0;
    Bytes into(20000);
    for (int i = 0; i < 100 && got < 60'000; ++i) {
        if (int const n = SSL_read(raw.ssl, into.data(), static_cast<int>(into.size())); n > 0)
            got += static_cast<std::size_t>(n);
        if (sent < 60'000) {
            outcome = ends_.server->send(bytes);
            sent += outcome.bytes;
            ASSERT_NE(outcome.result, Result::failed) << ends_.server->error();
        }
    }
    EXPECT_EQ(got, 60'000u);
}

TEST_F(TlsStrangerTest, DoesNotKeepReceiveBusyWithoutData) {
    Raw raw(ends_.clientSocket, &clientFiles());
    handshake(raw);
    BIO* const memory = BIO_new(BIO_s_mem());
    SSL_set0_wbio(raw.ssl, memory);
    for (int i = 0; i < 2500; ++i) {
        ASSERT_EQ(SSL_key_update(raw.ssl, SSL_KEY_UPDATE_NOT_REQUESTED), 1);
        ASSERT_EQ(SSL_do_handshake(raw.ssl), 1);
    }
    char* updates = nullptr;
    auto const size = static_cast<std::size_t>(BIO_get_mem_data(memory, &updates));
    ASSERT_GT(size, 3 * 18'432u);
    ends_.clientSocket.write({updates, size});

    for (std::size_t turns = 1; turns <= 2; ++turns) {
        EXPECT_EQ(receiveResult(*ends_.server), Result::wantsRead);
        EXPECT_EQ(ends_.serverSocket.waiting(), size - turns * 18'432);
    }
}

}  // namespace
