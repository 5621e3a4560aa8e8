#pragma once

#include "Vel/text/OutSm.h"

#include <algorithm>
#include <functional>
#include <span>
#include <vector>

namespace Vel {

// Limits on what a peer can make this process do or keep.
//
// The first message of each side, a hello or a welcome, has a limit of its own, since its sender is not known yet. The
// default has room for a path and for 1024 modules with names of 50 bytes; a module takes 12 bytes beside its name.
struct StreamLimits {
    std::size_t frame = 16u << 20;     // bytes of a message after its length; limits each string in it too
    std::size_t entities = 16u << 20;  // known at one time
    std::size_t types = 4096;
    std::size_t hello = 64u << 10;        // bytes of the first message after its length
    std::size_t modules = 1024;           // number in a hello
    std::size_t answers = 4096;           // bytes of answers to pings that the transport has not taken
    std::size_t memory = 256u << 20;      // bytes held for all peers of a server; the transport checks this
    std::size_t keys = 64u << 20;         // of collections of values, known at one time
    std::size_t copySize = 1u << 30;      // bytes of a copy, by the estimate in docs/streaming.md
    std::size_t depth = 1000;             // ancestors of a moved entity of the copy, and of its new owner
    std::size_t descriptions = 1u << 20;  // bytes of modules that the source describes in a connection
};

// Why a connection has ended, for programs. The text in error() is for people.
enum class StreamFault : U32 {
    none,          // the connection has not ended, or has ended in good order
    other,         // an error without a code of its own
    nothingThere,  // the source has nothing at the path that the reader asks for
    noSuchModule,  // the source has a type, or a type of a module, that the reader does not know
    otherVersion   // the source and the reader have a module with different fingerprints
};

// One side of a connection: it takes bytes and gives bytes. The transport calls this and nothing else:
//
//     while (peer.wantsOutput()) { auto bytes = peer.output(limit); sent = send(bytes); peer.outputTaken(sent); }
//     peer.input(received);
//     if (peer.isClosing() && !peer.wantsOutput()) { close(); peer.closed(peer.error()); }
//
// Any bytes may come in. A message that no peer would send changes nothing, and makes the connection closing, with an
// error.
// Threads: one at a time, the one that uses the entities.
class VEL_API StreamPeer {
public:
    explicit StreamPeer(StreamLimits const& limits) : limits_(limits) {}
    StreamPeer(StreamPeer const&) = delete;
    StreamPeer& operator=(StreamPeer const&) = delete;
    virtual ~StreamPeer();

    // Returns the bytes to send next, at most `limit`. The result is empty if nothing is to be sent. It is also empty
    // if the entities that were looked at in this turn needed no message: then wantsOutput() is true, and `wake` is
    // called for another turn. The bytes stay in place until output() is called again or the peer is destroyed, so they
    // can be sent while input comes in and entities change. REQUIRES: limit != 0.
    virtual std::span<U8 const> output(std::size_t limit);
    virtual void outputTaken(std::size_t count);  // `count` bytes of output() were sent. REQUIRES: count <= its size
    virtual bool wantsOutput() const { return out_.size() != 0 || control_.size() != 0; }
    // Takes all the bytes: any number of messages, and parts of messages. An exception that an observer throws also
    // ends the connection with an error.
    void input(std::span<U8 const> bytes);
    // Called by the transport when the connection has ended. An empty reason means that it ended in good order.
    virtual void closed(String const& reason);

    bool isGreeted() const { return isGreeted_; }  // the other side's first message, a hello or a welcome, has come
    bool isClosing() const { return closing_; }    // to be closed when all output is sent; input is ignored
    String const& error() const { return error_; }
    StreamFault fault() const { return fault_; }  // the kind of the error, also if the other side refused
    // `wake` is called once when there is output again after wantsOutput() was false. The call may come from within a
    // mutator of an entity, so `wake` may only note that there is output.
    void wakeIs(std::function<void()> wake) { wake_ = std::move(wake); }

    // Makes the connection closing, with this error, and tells the other side.
    void refuse(String const& reason, StreamFault fault = StreamFault::other);
    bool hasRefused() const { return hasRefused_; }  // the other side is told why
    void ping(U32 token);                            // the other side answers; sent after this side's hello or welcome
    U32 pongs() const { return pongs_; }             // number of answers that came
    U64 messagesIn() const { return messagesIn_; }   // number of messages that were handled
    std::size_t inputHeld() const { return pending_.size(); }  // bytes of a message that is not complete yet
    // Bytes of memory that the connection takes: the buffers of a message that is not complete yet, and of what waits
    // to be sent, with their unused room.
    virtual std::size_t held() const { return pending_.capacity() + control_.capacity() + out_.capacity(); }
    StreamLimits const& limits() const { return limits_; }

protected:
    // Handles one message. Throws StreamException, or what the entity throws.
    virtual void handleMessage(NboAttrLog::MessageKind kind, NboAttrLog::In& body) = 0;
    void fail(String const& reason, StreamFault fault = StreamFault::other);  // makes it closing, with this error
    void reset();  // prepares the peer for another connection
    void wake();

    NboAttrLog::OutSm& controlOut() { return control_; }  // for messages that are sent at the next opportunity
    // Sends a message that is no part of an output(), so that it may have to wake the transport. write(Out&) writes its
    // body.
    template <class F> void sendControl(NboAttrLog::MessageKind kind, std::size_t size, F write) {
        bool const wanted = wantsOutput();
        write(control_.begin(kind, size));
        control_.commit();
        if (!wanted) wake();
    }
    bool hasControl() const { return control_.size() != 0; }
    void takeControl();                                     // moves what control_ has to the end of out_
    std::span<U8 const> outFront(std::size_t limit) const;  // the first bytes of out_

    // Bytes of memory that an empty output keeps: while there is more to send, `limit` bytes at a time, and while there
    // is not.
    static constexpr std::size_t keptWhileBusy(std::size_t limit) {
        return 4 * std::min(limit, std::size_t(256) << 10);
    }
    static constexpr std::size_t keptWhileIdle = 4096;

    NboAttrLog::BufferSm out_;  // never added to while bytes of it are being sent

private:
    NboAttrLog::BufferSm control_;
    std::size_t inputFrames(std::span<U8 const> bytes);
    void inputMessage(std::span<U8 const> message);
    void completeMessage(std::span<U8 const>& bytes);
    void answerPing(U32 token);
    void pendingIs(std::span<U8 const> bytes);

    StreamLimits limits_;
    std::vector<U8> pending_;
    std::function<void()> wake_;
    String error_;
    StreamFault fault_ = StreamFault::none;
    U64 messagesIn_ = 0;
    U64 outTaken_ = 0;         // bytes of out_ that were sent so far
    U64 answersEnd_ = 0;       // value of outTaken_ when the last answer to a ping is sent
    std::size_t answers_ = 0;  // bytes of answers to pings; 0 again when all of them are sent
    U32 pongs_ = 0;
    bool closing_ = false;
    bool isGreeted_ = false;
    bool hasRefused_ = false;
};

}  // namespace Vel
