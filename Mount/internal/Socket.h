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

// A file descriptor that is closed in the end.
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

// The address of a socket as the system takes it.
struct SocketAddress {
    sockaddr_storage storage{};
    socklen_t length = 0;

    sockaddr const* get() const { return reinterpret_cast<sockaddr const*>(&storage); }
    int family() const { return storage.ss_family; }
    bool isLoopback() const;
    U16 port() const;
};

SocketAddress unixAddress(String const& path);

// All that a host's name stands for, in the order to be tried. Waits for name servers unless the host is a number.
// Throws RangeException that says why there are none.
std::vector<SocketAddress> resolve(Address const& address, bool forServer);

// Checks that plain TCP stays on this machine, and that there are files for TLS.
void checkAddress(Address const& address, PeerOptions const& options, std::span<SocketAddress const> found);

// A socket that does not block, and is not inherited. It listens, unless it is a Unix socket, which its SocketFile
// makes listen. Throws ErrnoException that names the address.
Descriptor listenAt(Address const& address, SocketAddress const& where);

// --- who is there ---

uid_t userOf(int unixSocket);    // who connected to it, or listens
std::string peerOf(int socket);  // whose connection it is: the user, or the address, of IPv6 the network's
String userName(uid_t user);     // its number when it has no name
// Users by name or number. Throws RangeException for a name that nobody has.
std::vector<uid_t> usersOf(std::vector<String> const& names);

}  // namespace Mount
