#pragma once

#include "Vel/text/OutSm.h"

#include <algorithm>
#include <functional>
#include <span>
#include <vector>

namespace Vel {

// Bounds on what a peer may ask for.
//
// The first message of either side is a hello or a welcome, and has a bound of its own, since nothing is known of who
// sends it. 1024 modules take 12 bytes each and their names, so that names of 50 bytes fit, and a path.
struct StreamLimits {
    std::size_t frame = 16u << 20;     // bytes of one message behind its length; bounds every string in it too
    std::size_t entities = 16u << 20;  // known at one time
    std::size_t types = 4096;
    std::size_t hello = 64u << 10;    // bytes of the first message behind its length
    std::size_t modules = 1024;       // of a hello
    std::size_t answers = 4096;       // bytes of answers to pings that the other side has not taken
    std::size_t memory = 256u << 20;  // bytes held for all peers of a server, which whoever carries them looks after
    std::size_t keys = 64u << 20;     // in collections of values, known at one time
    std::size_t copySize = 1u << 30;  // bytes of a copy, by the estimate in docs/streaming.md
    std::size_t depth = 1000;         // entities within one another, where one that is in the copy is moved
};

// What a connection ended by, for programs. The text beside it is for people.
enum class StreamFault : U8 {
    none,          // it has not ended, or has in good order
    other,         // what has no code
    nothingThere,  // the source has nothing at the path that the reader asks for
    noSuchModule,  // the source has a type, or a type of a module, that the reader does not know
    otherVersion   // the source and the reader have a module with different fingerprints
};

// One side of a connection: bytes in, bytes out. Whatever carries the bytes calls this and nothing else:
//
//     while (peer.wantsOutput()) { auto bytes = peer.output(limit); sent = send(bytes); peer.outputTaken(sent); }
//     peer.input(received);
//     if (peer.isClosing() && !peer.wantsOutput()) { close(); peer.closed(peer.error()); }
//
// Any bytes may come in. What no peer would send makes the connection closing, with an error, and changes nothing.
// Threads: one at a time, the one that uses the entities.
class VEL_API StreamPeer {
public:
    explicit StreamPeer(StreamLimits const& limits) : limits_(limits) {}
    StreamPeer(StreamPeer const&) = delete;
    StreamPeer& operator=(StreamPeer const&) = delete;
    virtual ~StreamPeer();

    // What is to be sent next, at most `limit` bytes; empty when there is nothing. It may also be empty when there was
    // much to look at and nothing to say yet: wantsOutput() is true then, and wake is called for another turn. It stays
    // in place until output() is called again or the peer destroyed, whatever else happens, so it can be sent while
    // input comes and entities change. REQUIRES: limit != 0.
    virtual std::span<U8 const> output(std::size_t limit);
    virtual void outputTaken(std::size_t count);  // bytes from the front of output(). REQUIRES: count <= its size
    virtual bool wantsOutput() const { return out_.size() != 0 || control_.size() != 0; }
    // Takes all the bytes, of any number of messages and parts. What an observer throws counts as an error too.
    void input(std::span<U8 const> bytes);
    // The connection is gone. Empty: in good order.
    virtual void closed(String const& reason);

    bool isGreeted() const { return isGreeted_; }  // the other side's first message, a hello or a welcome, was taken in
    bool isClosing() const { return closing_; }    // to be closed when all output is sent; no input is looked at
    String const& error() const { return error_; }
    StreamFault fault() const { return fault_; }  // of which kind the error is, the other side's refusal included
    // Called once when there is output again after wantsOutput() was false: out of a mutator of some entity, so it may
    // note that for later, and no more.
    void wakeIs(std::function<void()> wake) { wake_ = std::move(wake); }

    // Closing, with this error, and the other side is told.
    void refuse(String const& reason, StreamFault fault = StreamFault::other);
    bool hasRefused() const { return hasRefused_; }            // the other side was told why not
    void ping(U32 token);                                      // the other side answers by itself, once it is greeted
    U32 pongs() const { return pongs_; }                       // answers that came
    U64 messagesIn() const { return messagesIn_; }             // applied
    std::size_t inputHeld() const { return pending_.size(); }  // bytes of a message that has not come wholly
    // Bytes of memory that the connection takes: of a message that has not come wholly, and of what waits to be sent,
    // with the room that both keep.
    virtual std::size_t held() const { return pending_.capacity() + control_.capacity() + out_.capacity(); }
    StreamLimits const& limits() const { return limits_; }

protected:
    // One message. Throws StreamException, or what the entity throws.
    virtual void handleMessage(NboAttrLog::MessageKind kind, NboAttrLog::In& body) = 0;
    void fail(String const& reason, StreamFault fault = StreamFault::other);  // closing, with this error
    void reset();                                                             // as constructed, for another connection
    void wake();

    NboAttrLog::OutSm& controlOut() { return control_; }  // for messages that are sent at the next opportunity
    // The same for a message that comes up by itself, and so may have to wake the transport: write(Out&) its body.
    template <class F> void sendControl(NboAttrLog::MessageKind kind, std::size_t size, F write) {
        bool const wanted = wantsOutput();
        write(control_.begin(kind, size));
        control_.commit();
        if (!wanted) wake();
    }
    bool hasControl() const { return control_.size() != 0; }
    void takeControl();                                     // what control_ has is to be sent next, behind out_
    std::span<U8 const> outFront(std::size_t limit) const;  // of out_

    // Memory that an output keeps when it is empty, in bytes: while there is more to come, `limit` at a time, and when
    // there is not.
    static constexpr std::size_t keptWhileBusy(std::size_t limit) {
        return 4 * std::min(limit, std::size_t(256) << 10);
    }
    static constexpr std::size_t keptWhileIdle = 4096;

    NboAttrLog::BufferSm out_;  // written to by output() only

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
    U64 outTaken_ = 0;         // bytes of out_, since the beginning
    U64 answersEnd_ = 0;       // where in it the last answer to a ping ends
    std::size_t answers_ = 0;  // bytes of answers to pings, until all are taken
    U32 pongs_ = 0;
    bool closing_ = false;
    bool isGreeted_ = false;
    bool hasRefused_ = false;
};

}  // namespace Vel
