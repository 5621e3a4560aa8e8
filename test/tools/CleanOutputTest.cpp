#include "RunTool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstring>
#include <thread>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// Nothing that comes from a peer or a file reaches a terminal as it stands.
namespace {

using namespace ToolTest;
using testing::HasSubstr;
using testing::StartsWith;

// ESC, CR, LF, NUL, BEL, DEL, a C1 control in UTF-8 and as a byte, an override of direction, an isolate, a line
// separator.
constexpr char hostileBytes[] =
    "\x1b[31m\r\n+ /forged Vel::Dir\n\0\x07\x7f\xc2\x9b\x9b\xe2\x80\xae\xe2\x81\xa6\xe2\x80\xa8";
std::string const hostile(hostileBytes, sizeof hostileBytes - 1);
// The same without what ends a line.
std::string const hostileWord = "\x1b[31m\x07\x7f\xc2\x9b\x9b\xe2\x80\xae\xe2\x81\xa6\xe2\x80\xa8";
std::string const shownWord = "\\x1b[31m\\x07\\x7f\\xc2\\x9b\\x9b\\xe2\\x80\\xae\\xe2\\x81\\xa6\\xe2\\x80\\xa8";

// What a terminal may be given: whole lines of ASCII without control bytes, which all texts of these tests are.
testing::AssertionResult isHarmless(std::string const& text) {
    auto const at = std::find_if(text.begin(), text.end(), [](char c) { return c != '\n' && (c < 0x20 || c == 0x7f); });
    if (at == text.end()) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "byte " << static_cast<unsigned>(static_cast<unsigned char>(*at)) << " at "
                                       << at - text.begin() << " of " << testing::PrintToString(text);
}

long lines(std::string const& text) { return std::count(text.begin(), text.end(), '\n'); }

// Refuses whoever connects, with any text.
class RefusingServer {
public:
    RefusingServer(std::string const& path, std::string const& text) : listener_(::socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(listener_, 5) != 0)
            ADD_FAILURE() << "cannot listen at " << path;
        thread_ = std::thread([this, text] {
            for (int peer; (peer = ::accept(listener_, nullptr, nullptr)) >= 0; ::close(peer)) refuse(peer, text);
        });
    }
    RefusingServer(RefusingServer const&) = delete;
    RefusingServer& operator=(RefusingServer const&) = delete;
    ~RefusingServer() {
        ::shutdown(listener_, SHUT_RDWR);
        thread_.join();
        ::close(listener_);
    }

private:
    // A message of kind 10: the text, behind its length.
    static void refuse(int peer, std::string const& text) {
        auto const size = static_cast<unsigned>(text.size()), all = 5 + size;
        std::string message = {static_cast<char>(0x40 | all >> 8), static_cast<char>(all), 10, 0, 0,
            static_cast<char>(size >> 8), static_cast<char>(size)};
        message += text;
        char hello[65536];
        if (::read(peer, hello, sizeof hello) <= 0) return;
        if (::send(peer, message.data(), message.size(), MSG_NOSIGNAL) < 0) return;
        ::shutdown(peer, SHUT_WR);
        while (::read(peer, hello, sizeof hello) > 0) {}
    }

    int listener_;
    std::thread thread_;
};

class MoxCleanOutputTest : public testing::Test {
protected:
    Folder folder_;
    std::string socket_ = folder_.path() + "/s";
};

TEST_F(MoxCleanOutputTest, WatchShowsARefusalOnOneLine) {
    RefusingServer const server(socket_, "no " + hostile);
    auto const watching = moxBeside({"watch", socket_});
    std::string const out = watching->until("\n");
    EXPECT_THAT(
        out, StartsWith("# error: unix:" + socket_ + ": refused: no \\x1b[31m\\x0d\\x0a+ /forged Vel::Dir\\x0a"));
    EXPECT_TRUE(isHarmless(out));
    EXPECT_EQ(lines(out), 1);
}

TEST_F(MoxCleanOutputTest, WatchShowsAnAddressOnOneLine) {
    auto const watching = moxBeside({"watch", folder_.path() + "/s\n+ /forged Vel::Dir"});
    EXPECT_EQ(watching->until("\n"), "# error: unix:" + folder_.path() +
                                         "/s\\x0a+ /forged Vel::Dir: there is no such socket; nobody serves there\n");
}

TEST_F(MoxCleanOutputTest, WatchShowsARefusalInJsonWithoutAByteThatATerminalObeys) {
    RefusingServer const server(socket_, "no " + hostile);
    auto const watching = moxBeside({"watch", socket_, "--json"});
    std::string const out = watching->until("\n");
    EXPECT_EQ(lines(out), 1);
    for (char const* const obeyed : {"\x1b", "\x7f", "\xc2\x9b", "\xe2\x80\xae", "\xe2\x81\xa6", "\xe2\x80\xa8"})
        EXPECT_EQ(out.find(obeyed), std::string::npos) << testing::PrintToString(obeyed);
    EXPECT_EQ(nlohmann::json::parse(out)["event"], "error");
}

TEST_F(MoxCleanOutputTest, OtherCommandsShowARefusalOnOneLineOfStandardError) {
    RefusingServer const server(socket_, "no " + hostile);
    for (std::vector<std::string> const& arguments :
        {std::vector<std::string>{"get", socket_, "/"}, {"ls", socket_}, {"tree", socket_},
            {"set", socket_, "/", "a", "b"}, {"watch", socket_, "--until-synced", "--timeout", "1"}}) {
        Outcome const outcome = mox(arguments);
        EXPECT_EQ(outcome.code, 1);
        EXPECT_THAT(outcome.err, HasSubstr("refused: no "));
        EXPECT_TRUE(isHarmless(outcome.err));
        EXPECT_EQ(lines(outcome.err), 1);
    }
}

TEST_F(MoxCleanOutputTest, ComplaintsShowAFilesBytesEscaped) {
    for (std::vector<std::string> const& arguments : {std::vector<std::string>{"stat", "CountStat"}, {"trie", "-"},
             {"idset", "-"}, {"serve", socket_, "-"}, {"value", "-", "--type", "U8"}}) {
        Outcome const outcome = mox(arguments, {}, "(" + hostileWord + "\n");
        EXPECT_NE(outcome.code, 0);
        EXPECT_THAT(outcome.err, HasSubstr("\n    (" + shownWord + "\n    ")) << arguments[0];
        EXPECT_TRUE(isHarmless(outcome.err)) << arguments[0];
    }
}

TEST_F(MoxCleanOutputTest, TheCaretStandsBelowTheEscapedByte) {
    EXPECT_EQ(mox({"trie", "-"}, {}, "\xc2\x9b/c*\n").err.substr(0, 26), "mox: standard input:1:5: t");
    EXPECT_THAT(mox({"trie", "-"}, {}, "\xc2\x9b/c*\n").err, HasSubstr("\n    \\xc2\\x9b/c*\n              ^\n"));
}

TEST_F(MoxCleanOutputTest, NamesAndValuesOfAServerAreEscapedAndCanBeReadBack) {
    std::string const name = "%1b[31m%0a%c2%9b%9b%e2%80%ae%e2%81%a6%e2%80%a8";
    std::string const text =
        "/" + name + " Cell::Status\n/" + name + " product = '\\x1b\\n" + "\xc2\x9b\x9b\xe2\x80\xae" + "'\n";
    auto const server = moxBeside({"serve", socket_, folder_.write("state", text)});
    server->until("serving");
    std::string const value = "'\\x1b\\n\\xc2\\x9b\\x9b\\xe2\\x80\\xae'";
    EXPECT_EQ(mox({"get", socket_, "/" + name, "product"}).out, value + "\n");
    EXPECT_EQ(mox({"ls", socket_}).out, name + "  Cell::Status\n");
    std::string const state = mox({"tree", socket_, "--state"}).out;
    EXPECT_THAT(state, HasSubstr("\n/" + name + " product = " + value + "\n"));
    for (std::string const& out : {state, mox({"tree", socket_, "--ascii"}).out, mox({"get", socket_, "/" + name}).out,
             mox({"watch", socket_, "--until-synced", "--timeout", "30"}).out,
             mox({"get", socket_, "/" + hostileWord + "x"}).err})
        EXPECT_TRUE(isHarmless(out));
    std::string const other = folder_.path() + "/o";
    auto const again = moxBeside({"serve", other, folder_.write("again", state)});
    again->until("serving");
    EXPECT_EQ(mox({"tree", other, "--state"}).out, state);
    EXPECT_EQ(mox({"get", other, "/" + name, "product", "--json"}).out,
        mox({"get", socket_, "/" + name, "product", "--json"}).out);
}

TEST_F(MoxCleanOutputTest, WhatTheCommandLineNamesIsEscaped) {
    for (std::vector<std::string> const& arguments :
        {std::vector<std::string>{hostileWord}, {"--module", hostileWord, "types"}, {"types", hostileWord},
            {"stat", hostileWord}, {"stat", "CountStat", hostileWord}, {"value", "--type", "U8", hostileWord},
            {"idset", hostileWord}, {"trie", hostileWord}, {"ls", hostileWord}, {"serve", "tcp:" + hostileWord + ":1"},
            {"types", "--" + hostileWord}, {"cell", "--root", hostileWord}}) {
        Outcome const outcome = mox(arguments);
        EXPECT_EQ(outcome.out, "");
        EXPECT_THAT(outcome.err, StartsWith("mox: "));
        EXPECT_TRUE(isHarmless(outcome.err));
    }
}

TEST_F(MoxCleanOutputTest, AVariableOfTheEnvironmentIsEscaped) {
    Outcome const outcome = mox({"cell"}, {{"PRODUCT", hostileWord}, {"CELLID", hostileWord}});
    EXPECT_THAT(row(outcome.out, "product"), testing::Contains("'" + shownWord + "'"));
    EXPECT_TRUE(isHarmless(outcome.out));
    EXPECT_TRUE(isHarmless(outcome.err));
}

}  // namespace
