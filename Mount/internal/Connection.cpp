#include "Mount/internal/Connection.h"

#include "Vel/text/Strep.h"

#include <asio/io_context.hpp>
#include <asio/post.hpp>

namespace Mount {

namespace {

constexpr std::size_t bufferSize = 256u << 10;
constexpr std::size_t scarceSize = 16u << 10;     // most output at once while memory is scarce
constexpr std::size_t turn = 1u << 20;            // bytes received or sent before other connections have their turn
constexpr std::chrono::milliseconds turnTime{3};  // longest turn: small messages take longer a byte
constexpr std::chrono::seconds finishTime{1};

// Room for what comes in. All connections of a thread share one buffer. A further one is allocated only while an
// observer runs the loop from within receive().
class Buffer {
public:
    Buffer() : bytes_(kept() ? std::move(kept()) : std::make_unique_for_overwrite<U8[]>(bufferSize)) {}
    Buffer(Buffer const&) = delete;
    Buffer& operator=(Buffer const&) = delete;
    ~Buffer() { kept() = std::move(bytes_); }
    std::span<U8> bytes() const { return {bytes_.get(), bufferSize}; }

private:
    static std::unique_ptr<U8[]>& kept() {
        thread_local std::unique_ptr<U8[]> buffer;
        return buffer;
    }
    std::unique_ptr<U8[]> bytes_;
};

// Measures how long one connection works before others have their turn. A turn is never over before its first bytes.
class Turn {
public:
    void done(std::size_t bytes) { bytes_ += bytes; }
    bool isOver() const { return bytes_ >= turn || (bytes_ != 0 && Clock::now() - begun_ >= turnTime); }

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point begun_ = Clock::now();
    std::size_t bytes_ = 0;
};

}  // namespace

Connection::Connection(
    Socket socket, std::unique_ptr<Channel> channel, PeerOptions const& options, SharedMemory* memory)
    : socket_(std::move(socket)),
      channel_(std::move(channel)),
      timer_(socket_.get_executor()),
      options_(options),
      memory_(memory) {}
Connection::~Connection() = default;

// Does some work that may call the peer. Afterwards ends the connection if endLater() was called, or else waits for the
// socket.
template <class Work> void Connection::run(Work work) {
    if (phase_ == Phase::ended) return;
    auto const self = shared_from_this();
    bool const wasBusy = std::exchange(isBusy_, true);
    try {
        if (!isToEnd_) work();
        if (!wasBusy && !isToEnd_ && peer_) heldIs(peer_->held());
    } catch (std::exception const& error) {  // thrown by an observer, or for lack of memory; no caller can handle it
        endLater(error.what());
    }
    isBusy_ = wasBusy;
    if (isBusy_) return;
    if (isToEnd_)
        end();
    else
        arm();
}

void Connection::start(Ready ready, Ended ended) {
    ready_ = std::move(ready);
    ended_ = std::move(ended);
    startedAt_ = heardAt_ = takenAt_ = Clock::now();
    scheduleTick(std::min<Clock::duration>(options_.helloTimeout, options_.idleTimeout / 3));
    run([this] { handshake(); });
}

void Connection::close(String const& reason) {
    run([&] {
        endLater(reason);
        if (peer_) peer_->refuse(reason);  // so that the peer applies no further messages
    });
}

void Connection::refuse(String const& reason) {
    run([&] {
        if (peer_) peer_->refuse(reason);
        if (peer_ && sendAwaits_ == Awaits::nothing) send();
        endLater(reason);
        heldIs(0);
    });
}

// --- work ---

// Returns whether the channel has to wait for the socket, and sets `awaits` to what it waits for.
bool Connection::hasToWait(Channel::Outcome outcome, Awaits& awaits) {
    awaits = outcome.result == Channel::Result::wantsRead    ? Awaits::toRead
             : outcome.result == Channel::Result::wantsWrite ? Awaits::toWrite
                                                             : Awaits::nothing;
    return awaits != Awaits::nothing;
}

void Connection::handshake() {
    auto const outcome = channel_->handshake();
    if (hasToWait(outcome, receiveAwaits_)) return;
    if (outcome.result != Channel::Result::done) return endLater(channel_->error());
    phase_ = Phase::carrying;
    peer_ = &ready_(*this);
    peer_->wakeIs([this] { wake(); });
    send();
    receive();
}

void Connection::receive() {
    receiveAwaits_ = Awaits::nothing;
    Buffer const buffer;
    isReceiving_ = true;
    auto const atEnd = [this](void*) { isReceiving_ = false; };
    std::unique_ptr<void, decltype(atEnd)> const receiving(this, atEnd);
    for (Turn mine; !isOver();) {
        if (mine.isOver()) {
            receivesMore_ = true;
            return wake();
        }
        auto const outcome = channel_->receive(buffer.bytes());
        if (hasToWait(outcome, receiveAwaits_)) return;
        if (outcome.result == Channel::Result::failed) return endLater(channel_->error());
        if (outcome.result == Channel::Result::end) {
            bool const isCut = phase_ == Phase::carrying && peer_->inputHeld() != 0;
            return endLater(isCut ? String("the connection was cut in the middle of a message") : peer_->error());
        }
        mine.done(outcome.bytes);
        bytesIn_ += outcome.bytes;
        if (phase_ != Phase::carrying) continue;  // the peer is done: drop the bytes
        peer_->input(buffer.bytes().first(outcome.bytes));
        checkClosing();
    }
}

void Connection::send() {
    sendAwaits_ = Awaits::nothing;
    for (Turn mine; !isOver();) {
        if (mine.isOver()) return wake();
        if (outgoing_.empty()) {
            bool const isScarce = memory_ && memory_->held > memory_->limit / 2;
            outgoing_ = peer_->output(isScarce ? scarceSize : bufferSize);
            checkClosing();
            if (outgoing_.empty()) {
                if (phase_ == Phase::finishing) channel_->finish();
                return;
            }
        }
        auto const outcome = channel_->send(outgoing_);
        if (hasToWait(outcome, sendAwaits_)) return;
        if (outcome.result != Channel::Result::done) {
            // The other side may have sent its reason before it closed; that says more than the failed send.
            if (phase_ == Phase::carrying && !isReceiving_) receive();
            return endLater(channel_->error());
        }
        mine.done(outcome.bytes);
        bytesOut_ += outcome.bytes;
        peer_->outputTaken(outcome.bytes);
        outgoing_ = outgoing_.subspan(outcome.bytes);
    }
}

// When the peer wants to end, gives it up to finishTime to send its last message.
void Connection::checkClosing() {
    if (phase_ != Phase::carrying || !peer_->isClosing()) return;
    phase_ = Phase::finishing;
    scheduleTick(finishTime);
    wake();
}

// --- waiting ---

// Called by mutators, perhaps for each of many changes: only posts goOn(), once.
void Connection::wake() {
    if (std::exchange(isWoken_, true) || phase_ == Phase::ended) return;
    // Posts to the context itself: the socket's type-erased executor would not use wakeMemory_.
    auto& context = static_cast<asio::io_context&>(asio::query(socket_.get_executor(), asio::execution::context));
    asio::post(context.get_executor(), KeptHandler(wakeMemory_, [self = shared_from_this()] { self->goOn(); }));
}

void Connection::goOn() {
    isWoken_ = false;
    run([this] {
        if (sendAwaits_ == Awaits::nothing) send();
        if (std::exchange(receivesMore_, false)) receive();
    });
}

void Connection::arm() {
    if (receiveAwaits_ == Awaits::toRead || sendAwaits_ == Awaits::toRead)
        waitFor(Awaits::toRead, isReadWaiting_, readMemory_);
    if (receiveAwaits_ == Awaits::toWrite || sendAwaits_ == Awaits::toWrite)
        waitFor(Awaits::toWrite, isWriteWaiting_, writeMemory_);
}

void Connection::waitFor(Awaits what, bool& isWaiting, HandlerMemory& memory) {
    if (std::exchange(isWaiting, true)) return;
    auto const kind = what == Awaits::toRead ? Socket::wait_read : Socket::wait_write;
    socket_.async_wait(
        kind, KeptHandler(memory, [self = shared_from_this(), what, &isWaiting](std::error_code const& error) {
            isWaiting = false;
            if (error) return;  // the socket was closed meanwhile
            self->run([&] {
                if (self->phase_ == Phase::handshake) return self->handshake();
                if (self->sendAwaits_ == what) self->send();
                if (self->receiveAwaits_ == what) self->receive();
            });
        }));
}

void Connection::scheduleTick(Clock::duration time) {
    timer_.expires_after(time);
    timer_.async_wait([self = shared_from_this()](std::error_code const& error) {
        if (!error) self->run([&] { self->tick(); });
    });
}

void Connection::tick() {
    if (phase_ == Phase::finishing) return endLater(peer_->error());
    // Receives and sends what it can first: while the process was busy, bytes may have come whose handler is still
    // queued.
    if (phase_ == Phase::carrying && receiveAwaits_ == Awaits::toRead) receive();
    if (phase_ == Phase::carrying && sendAwaits_ == Awaits::toWrite && !isOver()) send();
    if (isOver() || phase_ == Phase::finishing) return;
    auto const now = Clock::now();
    if (String const late = lateness(now); !late.empty()) return endLater(late);
    if (knows() && now - heardAt_ >= options_.idleTimeout / 3) peer_->ping(0);
    auto next = std::min(heardAt_, takenAt_) + options_.idleTimeout;
    if (!knows()) next = std::min(next, startedAt_ + options_.helloTimeout);
    next = std::min<Clock::time_point>(next, now + options_.idleTimeout / 3);
    scheduleTick(std::max<Clock::duration>(next - now, std::chrono::milliseconds(1)));
}

// Returns the error if the other side has been silent, or has taken nothing, for too long; else an empty text. The two
// are checked apart: a peer that sends may still take nothing.
String Connection::lateness(Clock::time_point now) {
    auto const in = [](Milliseconds time) {
        return Vel::valueToStrep(static_cast<double>(time.count()) / 1000) + " s";
    };
    if (!knows() && now - startedAt_ >= options_.helloTimeout)
        return "not a word came within " + in(options_.helloTimeout);
    if (std::exchange(bytesInHeard_, bytesIn_) != bytesIn_) heardAt_ = now;
    if (std::exchange(bytesOutTaken_, bytesOut_) != bytesOut_ || outgoing_.empty()) takenAt_ = now;
    if (now - heardAt_ >= options_.idleTimeout) return "nothing came for " + in(options_.idleTimeout);
    if (now - takenAt_ >= options_.idleTimeout) return "nothing was taken for " + in(options_.idleTimeout);
    return {};
}

// --- memory ---

void Connection::heldIs(std::size_t held) {
    if (!memory_) return;
    bool const isMore = held > held_;
    memory_->held += held - held_;
    held_ = held;
    if (isMore && memory_->held > memory_->limit) memory_->exceeded();
}

// --- the end ---

void Connection::endLater(String const& reason) {
    if (!std::exchange(isToEnd_, true)) reason_ = reason;
}

void Connection::end() {
    phase_ = Phase::ended;
    timer_.cancel();
    heldIs(0);
    std::error_code ignored;
    socket_.close(ignored);
    if (peer_) {
        peer_->wakeIs(nullptr);
        bool const hasError = peer_->isClosing() && !peer_->error().empty();
        if (hasError) reason_ = peer_->error();
        try {
            peer_->closed(reason_);
            fault_ = peer_->fault();
        } catch (std::exception const& error) {  // thrown by an observer; ended_ must be called all the same
            reason_ = error.what();
        }
    }
    ready_ = nullptr;
    if (auto const ended = std::exchange(ended_, nullptr)) ended(*this, reason_);
}

}  // namespace Mount
