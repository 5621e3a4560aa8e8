#include "Mount/internal/Connection.h"
#include "Mount/internal/HandlerMemory.h"

#include "MountFixture.h"

#include <asio/io_context.hpp>

#include <chrono>
#include <thread>

namespace {

using namespace MountTest;
using Mount::Channel;
using Mount::Connection;

constexpr std::size_t mebi = 1u << 20;

// Has messages without end, and takes everything.
class EndlessChannel final : public Channel {
public:
    explicit EndlessChannel(int socket) : Channel(socket) {}

    Outcome receive(std::span<U8> into) override {
        if (!isReadable || received >= 100 * mebi) return {Result::wantsRead};
        for (std::size_t i = 0; i + 1 < into.size(); i += 2) into[i] = into[i + 1] = 1;  // a message of kind 1
        received += into.size();
        return {Result::done, into.size()};
    }
    Outcome send(std::span<U8 const> bytes) override {
        if (sent >= 100 * mebi) return {Result::wantsWrite};
        sent += bytes.size();
        return {Result::done, bytes.size()};
    }
    void finish() override {}

    bool isReadable = false;
    std::size_t received = 0;
    std::size_t sent = 0;
};

class EndlessPeer final : public Vel::StreamPeer {
public:
    EndlessPeer() : StreamPeer({}) {}
    std::span<U8 const> output(std::size_t limit) override {
        ++outputs;
        std::this_thread::sleep_for(pause);
        return std::span<U8 const>(bytes).first(hasOutput ? limit : 0);
    }
    void outputTaken(std::size_t) override {}
    bool hasOutput = false;
    std::chrono::milliseconds pause{0};  // that an output takes
    std::size_t outputs = 0;
    U64 messages = 0;

private:
    void handleMessage(Vel::NboAttrLog::MessageKind, Vel::NboAttrLog::In&) override { ++messages; }
    Message bytes = Message(mebi);
};

class ConnectionTest : public SharedTest {
protected:
    ConnectionTest() {
        int both[2] = {-1, -1};
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, both), 0);
        otherEnd = both[1];
        auto made = std::make_unique<EndlessChannel>(both[0]);
        channel = made.get();
        Connection::Socket socket(loop.context(), asio::generic::stream_protocol(AF_UNIX, 0), both[0]);
        connection = std::make_shared<Connection>(std::move(socket), std::move(made), options);
    }
    ~ConnectionTest() override {
        connection->close(String());
        loop.poll();
        ::close(otherEnd);
    }
    void start() {
        connection->start([&](Connection&) -> Vel::StreamPeer& { return peer; }, [](Connection&, String const&) {});
    }
    // Whether others have had their turn after at most so many bytes.
    bool isOthersTurnWithin(std::size_t bytes) {
        std::size_t atTheirTurn = 0;
        loop.post([&] {
            atTheirTurn = channel->received + channel->sent;
            loop.stop();
        });
        loop.run();
        return atTheirTurn <= bytes;
    }

    Mount::PeerOptions options;
    EndlessPeer peer;
    EndlessChannel* channel = nullptr;
    int otherEnd = -1;
    std::shared_ptr<Connection> connection;
};

TEST(HandlerMemoryTest, OneHandlerThatFitsIsKeptThereAndOthersElsewhere) {
    Mount::HandlerMemory memory;
    void* const first = memory.allocate(100);
    void* const second = memory.allocate(100);
    EXPECT_NE(first, second);
    memory.deallocate(first);
    void* const large = memory.allocate(100'000);
    EXPECT_NE(large, first);
    EXPECT_EQ(memory.allocate(256), first) << "which is free again";
    for (void* const one : {first, second, large}) memory.deallocate(one);
    EXPECT_EQ(memory.allocate(1), first);
}

TEST_F(ConnectionTest, OthersHaveTheirTurnWhileOneHasMoreToReceive) {
    channel->isReadable = true;
    start();
    EXPECT_TRUE(isOthersTurnWithin(3 * mebi));
    EXPECT_GT(peer.messages, 0u);
    EXPECT_EQ(connection->bytesIn(), channel->received);
    std::size_t const before = channel->received;
    loop.post([&] { loop.stop(); });
    loop.run();
    EXPECT_GT(channel->received, before) << "and then it goes on";
}

TEST_F(ConnectionTest, OthersHaveTheirTurnWhileOneHasMoreToSend) {
    peer.hasOutput = true;
    start();
    EXPECT_TRUE(isOthersTurnWithin(3 * mebi));
    EXPECT_GT(channel->sent, 0u);
    EXPECT_EQ(connection->bytesOut(), channel->sent);
}

TEST_F(ConnectionTest, OthersHaveTheirTurnWhileOneTakesLongToSayLittle) {
    peer.hasOutput = true;
    peer.pause = std::chrono::milliseconds(4);
    start();
    EXPECT_TRUE(isOthersTurnWithin(3 * mebi));
    EXPECT_LE(peer.outputs, 2u);
    std::size_t const before = channel->sent;
    loop.post([&] { loop.stop(); });
    loop.run();
    EXPECT_GT(channel->sent, before) << "and then it goes on";
}

}  // namespace
