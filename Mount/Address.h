#pragma once

#include "Vel/base/String.h"

namespace Mount {

using Vel::String;
using Vel::U16;

// Where a server listens, as text:
//
//     unix:/run/mox/state.sock     a Unix socket; the prefix may be left out where the path has a "/"
//     tcp:127.0.0.1:7400           loopback only, since plain TCP does not authenticate anybody; also tcp:[::1]:7400
//     tls:state.example:7400       any interface; both sides show a certificate
//
// With port 0 the system chooses a free port for a server; Server::listen() returns it.
class VEL_API Address {
public:
    enum class Kind : Vel::U8 { unixSocket, tcp, tls };

    // Parses `text`. Throws RangeException that says what is wrong with it.
    Address(String const& text);
    Address(char const* text) : Address(String(text)) {}

    // Throw the same as the constructor.
    static Address unixSocket(String const& path);
    static Address tcp(String const& host, U16 port);
    static Address tls(String const& host, U16 port);

    Kind kind() const { return kind_; }
    String const& path() const { return where_; }  // of a Unix socket
    // Of TCP and TLS, without brackets. For a TLS server it may be empty, which means all interfaces.
    String const& host() const { return where_; }
    U16 port() const { return port_; }
    String text() const;  // in the form that the constructor parses

    friend bool operator==(Address const&, Address const&) = default;

private:
    Address(Kind kind, String where, U16 port) : kind_(kind), where_(std::move(where)), port_(port) {}

    Kind kind_;
    String where_;
    U16 port_ = 0;
};

}  // namespace Mount
