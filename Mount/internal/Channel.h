#pragma once

#include "Mount/Options.h"

#include <memory>
#include <span>

namespace Mount {

using Vel::U8;

// What carries bytes over a socket that does not block: the socket alone, or TLS on it. The channel does not own it.
class VEL_API Channel {
public:
    enum class Result : U8 {
        done,        // the bytes that are told, at least one
        wantsRead,   // nothing until the socket can be read; without it the channel itself may hold more
        wantsWrite,  // nothing until it can be written to
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

    // To be called until it says done, before anything else; it never says end. The bytes mean nothing.
    virtual Outcome handshake() { return {Result::done}; }
    virtual Outcome receive(std::span<U8> into) = 0;
    // After wantsRead or wantsWrite the next call must be given the same bytes again, and perhaps more behind them.
    virtual Outcome send(std::span<U8 const> bytes) = 0;
    virtual void finish() = 0;  // nothing more will be sent: tells the other side, as far as that takes no waiting

    String const& error() const { return error_; }
    String const& peerName() const { return peerName_; }  // who the other side is, once the handshake is done

protected:
    int const socket_;
    String error_;
    String peerName_;
};

// The socket alone. `peerName` is what else tells of the other side.
std::unique_ptr<Channel> plainChannel(int socket, String const& peerName);

// The certificates of one side, read once for all its connections.
class VEL_API TlsContext {
public:
    enum class Side : U8 { server, client };

    // Throws RangeException, or ErrnoException, that names the file at fault.
    TlsContext(Side side, PeerOptions const& options);
    ~TlsContext();

    // The handshake fails unless the other side shows a certificate that the authority has signed, one of
    // `options.names` if there are any; for a client, one that is for the host that it connects to.
    std::unique_ptr<Channel> channel(int socket, String const& host) const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace Mount
