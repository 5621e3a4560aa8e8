#include "Mount/Address.h"

#include "Vel/base/Exception.h"
#include "Vel/text/Strep.h"

#include <charconv>
#include <sys/un.h>

namespace Mount {

namespace {

constexpr std::size_t longestPath = sizeof(sockaddr_un::sun_path) - 1;

[[noreturn]] void throwNoAddress(std::string_view text, std::string const& why) {
    throw Vel::RangeException(Vel::valueToStrep(String(text)) + " is no address: " + String(why));
}

U16 portOf(std::string_view text, std::string_view port) {
    unsigned value = 0;
    auto const [end, error] = std::from_chars(port.data(), port.data() + port.size(), value);
    if (port.empty() || error != std::errc() || end != port.data() + port.size() || value > 65535)
        throwNoAddress(text, "the port is to be a number from 0 to 65535");
    return static_cast<U16>(value);
}

}  // namespace

Address::Address(String const& text) : kind_(Kind::unixSocket) {
    std::string_view const all = text;
    std::string_view rest = all;
    auto const takePrefix = [&](std::string_view prefix) {
        if (!rest.starts_with(prefix)) return false;
        rest.remove_prefix(prefix.size());
        return true;
    };
    if (all.find('\0') != all.npos) throwNoAddress(all, "it holds a NUL");
    if (takePrefix("unix:") || (!all.starts_with("tcp:") && !all.starts_with("tls:") && all.find('/') != all.npos)) {
        if (rest.empty()) throwNoAddress(all, "unix: is followed by the path of a socket");
        if (rest.size() > longestPath)
            throwNoAddress(all, "the path of a socket has at most " + std::to_string(longestPath) + " bytes");
        where_ = String(rest);
        return;
    }
    if (takePrefix("tls:"))
        kind_ = Kind::tls;
    else if (takePrefix("tcp:"))
        kind_ = Kind::tcp;
    else
        throwNoAddress(all, "expected unix:PATH, tcp:HOST:PORT or tls:HOST:PORT");
    auto const colon = rest.rfind(':');
    if (colon == rest.npos) throwNoAddress(all, "a colon and the port are missing");
    std::string_view host = rest.substr(0, colon);
    port_ = portOf(all, rest.substr(colon + 1));
    if (host.starts_with('[') && host.ends_with(']'))
        host = host.substr(1, host.size() - 2);
    else if (host.find(':') != host.npos)
        throwNoAddress(all, "an IPv6 address stands in brackets");
    if (host.find_first_of("[]") != host.npos) throwNoAddress(all, "brackets stand around an IPv6 address only");
    if (host.empty() && kind_ == Kind::tcp)
        throwNoAddress(all, "the host is missing; plain TCP is for 127.0.0.1 or [::1]");
    where_ = String(host);
}

Address Address::unixSocket(String const& path) { return Address("unix:" + path); }
Address Address::tcp(String const& host, U16 port) { return Address(Address(Kind::tcp, host, port).text()); }
Address Address::tls(String const& host, U16 port) { return Address(Address(Kind::tls, host, port).text()); }

String Address::text() const {
    if (kind_ == Kind::unixSocket) return "unix:" + where_;
    bool const brackets = where_.view().find(':') != std::string_view::npos;
    std::string const host = brackets ? "[" + where_.stdString() + "]" : where_.stdString();
    return String((kind_ == Kind::tcp ? "tcp:" : "tls:") + host + ":" + std::to_string(port_));
}

}  // namespace Mount
