#pragma once

#include "Mount/internal/Channel.h"
#include "Mount/internal/HandlerMemory.h"

#include "Vel/stream/StreamPeer.h"

#include <asio/generic/stream_protocol.hpp>
#include <asio/steady_timer.hpp>

#include <functional>
#include <memory>

namespace Mount {

using Vel::U64;

// Bytes that connections hold together for their peers: parts of messages, and what was not taken yet.
struct SharedMemory {
    std::size_t limit = 0;
    std::size_t held = 0;
    std::function<void()> exceeded{};  // called when it holds more than the limit; ends connections
};

// Carries one side of a stream over a socket: sends what the side has to say, gives it what comes in, asks the other
// side for a sign of life when it has long been silent, and ends when either side is done.
//
// It lives while something is awaited for it. An observer may close a connection, or destroy what owns it, out of the
// very message that it is told by: what follows from that waits until the message is done with.
class VEL_API Connection : public std::enable_shared_from_this<Connection> {
public:
    using Socket = asio::generic::stream_protocol::socket;
    // Called after the handshake: gives the side to be carried, which must stay until `ended` was called.
    using Ready = std::function<Vel::StreamPeer&(Connection&)>;
    // Called once: the error, empty when it was closed in good order.
    using Ended = std::function<void(Connection&, String const& error)>;

    // `options`, and `memory` if there is one, must stay until `ended` was called.
    Connection(
        Socket socket, std::unique_ptr<Channel> channel, PeerOptions const& options, SharedMemory* memory = nullptr);
    ~Connection();

    void start(Ready ready, Ended ended);
    void close(String const& reason);   // at once; what was not sent is lost
    void refuse(String const& reason);  // the same, but the other side is told why, as far as that takes no waiting

    String const& peerName() const { return channel_->peerName(); }
    Vel::StreamFault fault() const { return fault_; }  // of which kind the error is that it has ended by
    U64 bytesIn() const { return bytesIn_; }
    U64 bytesOut() const { return bytesOut_; }
    std::size_t held() const { return held_; }  // of the shared memory

private:
    enum class Phase : U8 { handshake, carrying, finishing, ended };
    enum class Awaits : U8 { nothing, toRead, toWrite };
    using Clock = std::chrono::steady_clock;

    template <class Work> void run(Work work);
    static bool hasToWait(Channel::Outcome outcome, Awaits& awaits);
    void handshake();
    void receive();
    void send();
    void checkClosing();
    void wake();
    void goOn();
    void arm();
    void waitFor(Awaits what, bool& isWaiting, HandlerMemory& memory);
    void heldIs(std::size_t held);
    void tick();
    String lateness(Clock::time_point now);
    bool knows() const { return phase_ == Phase::carrying && peer_->isGreeted(); }
    void scheduleTick(Clock::duration time);
    bool isOver() const { return isToEnd_ || phase_ == Phase::ended; }
    void endLater(String const& reason);
    void end();

    Socket socket_;
    std::unique_ptr<Channel> channel_;
    asio::steady_timer timer_;
    PeerOptions const& options_;
    SharedMemory* memory_;
    std::size_t held_ = 0;
    Ready ready_;
    Ended ended_;
    Vel::StreamPeer* peer_ = nullptr;
    std::span<U8 const> outgoing_;  // of the peer's output: given to the channel, and not yet taken

    HandlerMemory readMemory_;
    HandlerMemory writeMemory_;
    HandlerMemory wakeMemory_;
    U64 bytesIn_ = 0;
    U64 bytesOut_ = 0;
    U64 bytesInHeard_ = 0;   // at heardAt_
    U64 bytesOutTaken_ = 0;  // at takenAt_
    Clock::time_point startedAt_;
    Clock::time_point heardAt_;
    Clock::time_point takenAt_;  // when something was, or nothing was there to be taken
    Phase phase_ = Phase::handshake;
    Awaits receiveAwaits_ = Awaits::nothing;  // what has to come before the work can go on
    Awaits sendAwaits_ = Awaits::nothing;
    bool isReadWaiting_ = false;  // the loop has been asked
    bool isWriteWaiting_ = false;
    bool isWoken_ = false;       // goOn() will be called
    bool receivesMore_ = false;  // there was more to receive when others had their turn
    bool isReceiving_ = false;   // receive() is at work, perhaps in an observer that runs the loop
    bool isBusy_ = false;        // the peer is at work
    bool isToEnd_ = false;       // as soon as it is not
    String reason_;
    Vel::StreamFault fault_ = Vel::StreamFault::other;
};

}  // namespace Mount
