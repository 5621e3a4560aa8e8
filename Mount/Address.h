#pragma once

#include "Vel/base/String.h"

namespace Mount {

using Vel::String;
using Vel::U16;

// Where a server listens, as text:
//
//     unix:/run/mox/state.sock     a Unix socket; the prefix may be left out where the path has a "/"
//     tcp:127.0.0.1:7400           loopback only, since nobody is asked who they are; tcp:[::1]:7400
//     tls:state.example:7400       any interface; both sides show a certificate
//
// Port 0 lets a server choose; Server::address() tells what it chose.
class VEL_API Address {
public:
    enum class Kind : Vel::U8 { unixSocket, tcp, tls };

    // Throws RangeException that says what an address looks like.
    Address(String const& text);
    Address(char const* text) : Address(String(text)) {}

    // These throw the same.
    static Address unixSocket(String const& path);
    static Address tcp(String const& host, U16 port);
    static Address tls(String const& host, U16 port);

    Kind kind() const { return kind_; }
    String const& path() const { return where_; }  // of a Unix socket
    String const& host() const { return where_; }  // of the others, without brackets; a server may leave it empty: all
    U16 port() const { return port_; }
    String text() const;  // what the constructor takes

    friend bool operator==(Address const&, Address const&) = default;

private:
    Address(Kind kind, String where, U16 port) : kind_(kind), where_(std::move(where)), port_(port) {}

    Kind kind_;
    String where_;
    U16 port_ = 0;
};

}  // namespace Mount
