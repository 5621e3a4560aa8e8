#include "Mount/Address.h"

#include "Vel/base/Exception.h"
#include "Vel/text/Strep.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

using Kind = Mount::Address::Kind;
using Mount::Address;
using Vel::String;

std::string refusal(String const& text) {
    try {
        return "accepted as " + Address(text).text().stdString();
    } catch (Vel::RangeException const& error) {
        return error.what();
    }
}

struct Accepted {
    char const* given;
    Kind kind;
    char const* where;
    unsigned port;
    char const* text;
};

TEST(AddressTest, TextsAreReadAndWritten) {
    Accepted const all[] = {
        {"unix:/run/s", Kind::unixSocket, "/run/s", 0, "unix:/run/s"},
        {"unix:s", Kind::unixSocket, "s", 0, "unix:s"},
        {"unix:unix:s", Kind::unixSocket, "unix:s", 0, "unix:unix:s"},
        {"unix:tcp:h:1", Kind::unixSocket, "tcp:h:1", 0, "unix:tcp:h:1"},
        {"/run/s", Kind::unixSocket, "/run/s", 0, "unix:/run/s"},
        {"./tcp:s", Kind::unixSocket, "./tcp:s", 0, "unix:./tcp:s"},
        {"run/s:7", Kind::unixSocket, "run/s:7", 0, "unix:run/s:7"},
        {"tcp:127.0.0.1:7400", Kind::tcp, "127.0.0.1", 7400, "tcp:127.0.0.1:7400"},
        {"tcp:[::1]:0", Kind::tcp, "::1", 0, "tcp:[::1]:0"},
        {"tcp:[localhost]:1", Kind::tcp, "localhost", 1, "tcp:localhost:1"},
        {"tcp:localhost:007", Kind::tcp, "localhost", 7, "tcp:localhost:7"},
        {"tls:state.example:65535", Kind::tls, "state.example", 65535, "tls:state.example:65535"},
        {"tls::7400", Kind::tls, "", 7400, "tls::7400"},
        {"tls:[]:7400", Kind::tls, "", 7400, "tls::7400"},
        {"tls:[fe80::1%eth0]:1", Kind::tls, "fe80::1%eth0", 1, "tls:[fe80::1%eth0]:1"},
    };
    for (Accepted const& one : all) {
        SCOPED_TRACE(one.given);
        Address const address(one.given);
        EXPECT_EQ(address.kind(), one.kind);
        EXPECT_EQ(address.path(), one.where);
        EXPECT_EQ(address.host(), one.where);
        EXPECT_EQ(address.port(), one.port);
        EXPECT_EQ(address.text(), one.text);
    }
}

TEST(AddressTest, OthersAreRefusedWithWhatIsWrong) {
    std::string const expected = " is no address: expected unix:PATH, tcp:HOST:PORT or tls:HOST:PORT";
    std::string const port = " is no address: the port is to be a number from 0 to 65535";
    std::string const brackets = " is no address: an IPv6 address stands in brackets";
    std::string const otherBrackets = " is no address: brackets stand around an IPv6 address only";
    std::string const host = " is no address: the host is missing; plain TCP is for 127.0.0.1 or [::1]";
    EXPECT_EQ(refusal(""), "''" + expected);
    EXPECT_EQ(refusal("socket"), "'socket'" + expected);
    EXPECT_EQ(refusal("udp:127.0.0.1:1"), "'udp:127.0.0.1:1'" + expected);
    EXPECT_EQ(refusal("TCP:127.0.0.1:1"), "'TCP:127.0.0.1:1'" + expected);
    EXPECT_EQ(refusal("it's"), "'it\\'s'" + expected);
    EXPECT_EQ(refusal("unix:"), "'unix:' is no address: unix: is followed by the path of a socket");
    EXPECT_EQ(refusal("tcp:"), "'tcp:' is no address: a colon and the port are missing");
    EXPECT_EQ(refusal("tls:host"), "'tls:host' is no address: a colon and the port are missing");
    for (std::string const text : {"tcp:h:", "tcp:h:x", "tcp:h:+1", "tcp:h: 1", "tcp:h:1 ", "tcp:h:-1", "tcp:h:65536",
             "tls:h:99999999999999999999", "tls:[::1]", "tcp:h:0x10"})
        EXPECT_EQ(refusal(String(text)), "'" + text + "'" + port);
    for (std::string const text : {"tcp:::1:7400", "tls:fe80::1:7400", "tcp:[::1]x:1", "tcp:x[::1]:1", "tcp:[::1:1"})
        EXPECT_EQ(refusal(String(text)), "'" + text + "'" + brackets);
    for (std::string const text : {"tls:[[x]]:1", "tls:[:1", "tls:x]:1", "tls:[[::1]]:1"})
        EXPECT_EQ(refusal(String(text)), "'" + text + "'" + otherBrackets);
    EXPECT_EQ(refusal("tcp::1"), "'tcp::1'" + host);
    EXPECT_EQ(refusal("tcp:[]:1"), "'tcp:[]:1'" + host);
    EXPECT_EQ(refusal(String(std::string("unix:a\0b", 8))), "'unix:a\\x00b' is no address: it holds a NUL");
}

TEST(AddressTest, APathMustFitWhatTheSystemTakes) {
    std::string const longest = "/" + std::string(106, 'p');
    EXPECT_EQ(Address(String(longest)).path(), String(longest));
    EXPECT_EQ(
        refusal(String(longest + "p")), "'" + longest + "p' is no address: the path of a socket has at most 107 bytes");
}

TEST(AddressTest, PartsAreCheckedLikeATextIs) {
    EXPECT_EQ(Address::unixSocket("s"), Address("unix:s"));
    EXPECT_EQ(Address::tcp("::1", 5), Address("tcp:[::1]:5"));
    EXPECT_EQ(Address::tls("", 5), Address("tls::5"));
    EXPECT_THROW(Address::unixSocket(""), Vel::RangeException);
    EXPECT_THROW(Address::tcp("", 5), Vel::RangeException);
    EXPECT_THROW(Address::tls("[::1]", 5), Vel::RangeException);
    EXPECT_THROW(Address::tls(String(std::string("a\0b", 3)), 5), Vel::RangeException);
}

// Whatever is accepted is read back from its own text as the same; nothing else is thrown.
TEST(AddressTest, EveryTextIsReadBackOrRefused) {
    std::mt19937 random(1);
    std::string const parts[] = {"unix:", "tcp:", "tls:", "[", "]", ":", "/", "127.0.0.1", "::1", "h", "0", "65535",
        "65536", ".", " ", "%", "'", "\\", std::string(1, '\0'), "\xff", std::string(60, 'l')};
    unsigned accepted = 0;
    for (unsigned i = 0; i < 60'000; ++i) {
        std::string text = i % 2 == 0 ? parts[random() % 3] : std::string();
        for (auto n = random() % 7; n != 0; --n) text += parts[random() % std::size(parts)];
        try {
            Address const address{String(text)};
            ++accepted;
            ASSERT_EQ(Address(address.text()), address) << text;
            ASSERT_EQ(Address(address.text()).text(), address.text()) << text;
        } catch (Vel::RangeException const& error) {
            ASSERT_TRUE(error.text().view().starts_with((Vel::valueToStrep(String(text)) + " is no address: ").view()))
                << text << " " << error.text();
        }
    }
    EXPECT_GT(accepted, 5000u);
}

}  // namespace
