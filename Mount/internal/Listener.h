#pragma once

#include "Mount/internal/SocketFile.h"

#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>

#include <functional>
#include <memory>

namespace Mount {

// Takes connections at one place.
class Listener : public std::enable_shared_from_this<Listener> {
public:
    using Accepted = std::function<void(Descriptor socket, int family)>;

    Listener(asio::io_context& context, Address const& address, SocketAddress const& where, U32 mode);
    ~Listener();

    void start(Accepted accepted);
    // Puts the file of a Unix socket back where somebody has taken it away, as whatever cleans up a folder does: nobody
    // could connect any more, and nobody else serve there. Throws ErrnoException when that fails; to be tried again.
    void checkFile();
    void stop();                                         // also takes the file of a Unix socket away
    Address const& address() const { return address_; }  // with the port

private:
    void wait();
    void accept();

    Address address_;
    SocketAddress where_;
    U32 mode_;
    std::unique_ptr<SocketFile> file_;  // of a Unix socket
    asio::posix::stream_descriptor socket_;
    asio::steady_timer timer_;
    Accepted accepted_;
};

}  // namespace Mount
