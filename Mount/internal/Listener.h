#pragma once

#include "Mount/internal/SocketFile.h"

#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>

#include <functional>
#include <memory>

namespace Mount {

// Accepts connections at one address.
class Listener : public std::enable_shared_from_this<Listener> {
public:
    using Accepted = std::function<void(Descriptor socket, int family)>;

    Listener(asio::io_context& context, Address const& address, SocketAddress const& where, U32 mode);
    ~Listener();

    void start(Accepted accepted);
    // Makes the file of a Unix socket anew if somebody has removed it, for example a job that cleans up a folder.
    // Without it nobody could connect, and no other server could take over. Throws ErrnoException if that fails; call
    // it again later.
    void checkFile();
    void stop();                                         // also removes the file of a Unix socket
    Address const& address() const { return address_; }  // with the port that was chosen

private:
    void wait();
    void accept();

    Address address_;
    SocketAddress where_;
    U32 mode_;
    std::unique_ptr<SocketFile> file_;  // null unless it is a Unix socket
    asio::posix::stream_descriptor socket_;
    asio::steady_timer timer_;
    Accepted accepted_;
};

}  // namespace Mount
