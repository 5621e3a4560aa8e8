#include "Mount/internal/Socket.h"

#include "Vel/base/Exception.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/un.h>
#include <unistd.h>

namespace Mount {

Descriptor::~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
}

// --- addresses ---

namespace {

template <class T> T const& as(sockaddr_storage const& storage) { return reinterpret_cast<T const&>(storage); }

[[noreturn]] void throwErrno(Address const& address) { throw Vel::ErrnoException(errno, address.text()); }

}  // namespace

bool SocketAddress::isLoopback() const {
    if (family() == AF_INET) return ntohl(as<sockaddr_in>(storage).sin_addr.s_addr) >> 24 == 127;
    return family() == AF_INET6 && IN6_IS_ADDR_LOOPBACK(&as<sockaddr_in6>(storage).sin6_addr);
}

U16 SocketAddress::port() const {
    if (family() == AF_INET) return ntohs(as<sockaddr_in>(storage).sin_port);
    return family() == AF_INET6 ? ntohs(as<sockaddr_in6>(storage).sin6_port) : U16(0);
}

SocketAddress unixAddress(String const& path) {
    SocketAddress address;
    auto& un = reinterpret_cast<sockaddr_un&>(address.storage);
    un.sun_family = AF_UNIX;
    std::memcpy(un.sun_path, path.data(), std::min(path.size(), sizeof un.sun_path - 1));
    address.length = sizeof un;
    return address;
}

std::vector<SocketAddress> resolve(Address const& address, bool forServer) {
    if (address.kind() == Address::Kind::unixSocket) return {unixAddress(address.path())};
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | (forServer ? AI_PASSIVE : 0);
    addrinfo* found = nullptr;
    // "localhost" is 127.0.0.1, for servers as for clients (Client::Impl::attempt()).
    bool const isHere = address.kind() == Address::Kind::tcp && address.host() == String("localhost");
    String const host = isHere ? String("127.0.0.1") : address.host();
    std::string const port = std::to_string(address.port());
    int const error = ::getaddrinfo(host.empty() ? nullptr : host.charPtr(), port.c_str(), &hints, &found);
    if (error != 0) {
        String const why = error == EAI_SYSTEM ? Vel::ErrnoException(errno).text() : String(::gai_strerror(error));
        throw Vel::RangeException(address.text() + ": no address of the host: " + why);
    }
    std::unique_ptr<addrinfo, void (*)(addrinfo*)> const owner(found, ::freeaddrinfo);
    std::vector<SocketAddress> all;
    for (addrinfo const* a = found; a; a = a->ai_next) {
        SocketAddress one;
        std::memcpy(&one.storage, a->ai_addr, a->ai_addrlen);
        one.length = a->ai_addrlen;
        all.push_back(one);
    }
    return all;
}

void checkAddress(Address const& address, PeerOptions const& options, std::span<SocketAddress const> found) {
    if (address.kind() == Address::Kind::tcp)
        for (SocketAddress const& one : found)
            if (!one.isLoopback())
                throw Vel::RangeException(address.text() +
                                          ": plain TCP is for this machine alone (127.0.0.1, [::1]); with other "
                                          "machines use tls:");
    if (address.kind() == Address::Kind::tls)
        for (String const& file : {options.tls.certificate, options.tls.key, options.tls.authority})
            if (file.empty())
                throw Vel::RangeException(
                    address.text() +
                    ": tls needs three files: a certificate, its key, and the authority's certificate");
}

// --- listening ---

Descriptor listenAt(Address const& address, SocketAddress const& where) {
    Descriptor socket(::socket(where.family(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (socket.get() < 0) throwErrno(address);
    if (where.family() == AF_UNIX) return socket;
    int const yes = 1;
    ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (where.family() == AF_INET6) ::setsockopt(socket.get(), IPPROTO_IPV6, IPV6_V6ONLY, &yes, sizeof yes);
    if (::bind(socket.get(), where.get(), where.length) != 0) throwErrno(address);
    if (::listen(socket.get(), SOMAXCONN) != 0) throwErrno(address);
    return socket;
}

// --- who is there ---

uid_t userOf(int unixSocket) {
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(unixSocket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return static_cast<uid_t>(-1);
    return credentials.uid;
}

std::string peerOf(int socket) {
    SocketAddress peer;
    peer.length = sizeof peer.storage;
    ::getpeername(socket, reinterpret_cast<sockaddr*>(&peer.storage), &peer.length);
    auto const bytes = [](void const* at, std::size_t size) { return std::string(static_cast<char const*>(at), size); };
    if (peer.family() == AF_INET) return bytes(&as<sockaddr_in>(peer.storage).sin_addr, 4);
    if (peer.family() == AF_INET6) return bytes(&as<sockaddr_in6>(peer.storage).sin6_addr, 8);
    return "user " + std::to_string(userOf(socket));
}

namespace {

template <class Ip, class Port> String numbersOf(int family, Ip const& address, Port port) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    ::inet_ntop(family, &address, text.data(), text.size());
    return Vel::format(family == AF_INET6 ? "[%s]:%u" : "%s:%u", text.data(), static_cast<unsigned>(ntohs(port)));
}

}  // namespace

String placeOf(int socket) {
    SocketAddress peer;
    peer.length = sizeof peer.storage;
    ::getpeername(socket, reinterpret_cast<sockaddr*>(&peer.storage), &peer.length);
    if (auto const& in = as<sockaddr_in>(peer.storage); peer.family() == AF_INET)
        return numbersOf(AF_INET, in.sin_addr, in.sin_port);
    if (auto const& in = as<sockaddr_in6>(peer.storage); peer.family() == AF_INET6)
        return numbersOf(AF_INET6, in.sin6_addr, in.sin6_port);
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return "process unknown";
    return Vel::format("process %d", static_cast<int>(credentials.pid));
}

}  // namespace Mount
