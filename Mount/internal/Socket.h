#pragma once

#include "Mount/Address.h"
#include "Mount/Options.h"

#include <optional>
#include <span>
#include <string>
#include <sys/socket.h>
#include <sys/types.h>
#include <vector>

namespace Mount {

// Owns a file descriptor: the destructor closes it.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
    Descriptor& operator=(Descriptor other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Descriptor();

    int get() const { return fd_; }
    int release() {
        int const fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

// The address of a socket, in the form of the system calls.
struct SocketAddress {
    sockaddr_storage storage{};
    socklen_t length = 0;

    sockaddr const* get() const { return reinterpret_cast<sockaddr const*>(&storage); }
    int family() const { return storage.ss_family; }
    bool isLoopback() const;
    U16 port() const;
};

SocketAddress unixAddress(String const& path);

// Returns all socket addresses of the host, in the order to be tried. Blocks while it asks name servers, unless the
// host is a number. Throws RangeException that says why there is none.
std::vector<SocketAddress> resolve(Address const& address, bool forServer);

// Throws RangeException if an address of plain TCP is not loopback, or if one of the files for TLS is not named.
void checkAddress(Address const& address, PeerOptions const& options, std::span<SocketAddress const> found);

// Returns a socket that does not block and that child processes do not inherit. It listens already, unless it is a Unix
// socket: SocketFile::listen() makes that listen. Throws ErrnoException that names the address.
Descriptor listenAt(Address const& address, SocketAddress const& where);

// --- who is there ---

uid_t userOf(int unixSocket);  // the user of the process on the other side
// Identifies the other side, to count connections by: the user of a Unix socket, the IPv4 address, or the first half of
// the IPv6 address, which is its network.
std::string peerOf(int socket);
String placeOf(int socket);  // "process 4711" of a Unix socket, or the other side's "address:port"

}  // namespace Mount
