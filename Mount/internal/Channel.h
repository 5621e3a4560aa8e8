#pragma once

#include "Mount/Options.h"

#include <memory>
#include <span>

namespace Mount {

using Vel::U8;

// Carries bytes over a socket that does not block: plain, or by TLS. The channel does not own the socket.
class VEL_API Channel {
public:
    enum class Result : U8 {
        done,        // Outcome::bytes were carried, at least one
        wantsRead,   // call again when the socket is readable; until receive() says so, the channel may hold more bytes
        wantsWrite,  // call again when the socket is writable
        end,         // the other side sends no more
        failed       // for good; error() says why
    };
    struct Outcome {
        Result result;
        std::size_t bytes = 0;
    };

    explicit Channel(int socket) : socket_(socket) {}
    Channel(Channel const&) = delete;
    Channel& operator=(Channel const&) = delete;
    virtual ~Channel() = default;

    // To be called before anything else, until it returns `done`. Never returns `end`; the bytes mean nothing.
    virtual Outcome handshake() { return {Result::done}; }
    virtual Outcome receive(std::span<U8> into) = 0;
    // After wantsRead or wantsWrite the next call must pass the same bytes again; more bytes may follow them.
    virtual Outcome send(std::span<U8 const> bytes) = 0;
    virtual void finish() = 0;  // tells the other side that nothing more is sent, unless that would have to wait

    String const& error() const { return error_; }
    String const& peerName() const { return peerName_; }  // who the other side is, once the handshake is done

protected:
    int const socket_;
    String error_;
    String peerName_;
};

// A channel without TLS. `peerName` becomes its peerName().
std::unique_ptr<Channel> plainChannel(int socket, String const& peerName);

// The certificates of one side, read once for all its connections.
class VEL_API TlsContext {
public:
    enum class Side : U8 { server, client };

    // Throws RangeException, or ErrnoException, that names the file at fault.
    TlsContext(Side side, PeerOptions const& options);
    ~TlsContext();

    // The handshake fails unless the other side shows a certificate that the authority has signed, and whose common
    // name is in `options.names`, if those are not empty. A client also requires that the certificate is for `host`.
    std::unique_ptr<Channel> channel(int socket, String const& host) const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Mount
