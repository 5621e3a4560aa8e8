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

// Counts the bytes that all connections of a server hold: incomplete messages, and output that was not taken yet.
struct SharedMemory {
    std::size_t limit = 0;
    std::size_t held = 0;
    std::function<void()> exceeded{};  // called when `held` has grown above `limit`; ends connections
};

// Carries a StreamPeer over a socket: sends the peer's output, passes it what comes in, pings the other side when that
// has long been silent, and ends when either side is done.
//
// Handlers that wait for the socket or a timer keep the connection alive. An observer may close the connection, or
// destroy its owner, while a message is being applied: the connection then ends after the message.
class VEL_API Connection : public std::enable_shared_from_this<Connection> {
public:
    using Socket = asio::generic::stream_protocol::socket;
    // Called after the handshake: returns the peer to be carried, which must live until `Ended` was called.
    using Ready = std::function<Vel::StreamPeer&(Connection&)>;
    // Called once, at the end. The error is empty if the connection was closed in good order.
    using Ended = std::function<void(Connection&, String const& error)>;

    // `options`, and `memory` if it is not null, must live until `Ended` was called.
    Connection(
        Socket socket, std::unique_ptr<Channel> channel, PeerOptions const& options, SharedMemory* memory = nullptr);
    ~Connection();

    void start(Ready ready, Ended ended);
    void close(String const& reason);   // at once; what was not sent is lost
    void refuse(String const& reason);  // the same, but sends the reason first, unless that would have to wait

    String const& peerName() const { return channel_->peerName(); }
    Vel::StreamFault fault() const { return fault_; }  // of which kind the error is that it has ended by
    U64 bytesIn() const { return bytesIn_; }
    U64 bytesOut() const { return bytesOut_; }
    std::size_t held() const { return held_; }  // this connection's part of SharedMemory::held

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
    std::span<U8 const> outgoing_;  // the part of the peer's output that the channel has not taken yet

    HandlerMemory readMemory_;
    HandlerMemory writeMemory_;
    HandlerMemory wakeMemory_;
    U64 bytesIn_ = 0;
    U64 bytesOut_ = 0;
    U64 bytesInHeard_ = 0;   // bytesIn_ at heardAt_
    U64 bytesOutTaken_ = 0;  // bytesOut_ at takenAt_
    Clock::time_point startedAt_;
    Clock::time_point heardAt_;  // when a tick last found that bytes had come
    Clock::time_point takenAt_;  // when a tick last found that bytes had been taken, or that none waited
    Phase phase_ = Phase::handshake;
    Awaits receiveAwaits_ = Awaits::nothing;  // what the socket must become before receive() goes on
    Awaits sendAwaits_ = Awaits::nothing;     // the same for send()
    bool isReadWaiting_ = false;              // the loop waits until the socket is readable
    bool isWriteWaiting_ = false;             // the loop waits until the socket is writable
    bool isWoken_ = false;                    // goOn() is posted
    bool receivesMore_ = false;               // receive() stopped because its turn was over
    bool isReceiving_ = false;                // receive() is on the stack, perhaps below an observer that runs the loop
    bool isBusy_ = false;                     // run() is on the stack, so end() must wait
    bool isToEnd_ = false;                    // end() is called as soon as isBusy_ is false
    String reason_;
    Vel::StreamFault fault_ = Vel::StreamFault::other;
};

}  // namespace Mount
