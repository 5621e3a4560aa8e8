#include "RunTool.h"

#include "Mount/Answer.h"
#include "Mount/Client.h"
#include "Mox/Generation.h"
#include "Vel/entity/Dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <filesystem>

namespace {

using namespace ToolTest;
using nlohmann::json;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

std::string const state = "/ Vel::Dir\n"
                          "/a%20b Vel::Dir\n"
                          "/a%20b/g%2f Redundancy::RedundancyStatus\n"
                          "/a%20b/g%2f activeCellId = 7\n"
                          "/ql Vel::Dir\n"
                          "/ql/cell Cell::Status\n"
                          "/ql/cell cellId = 3\n"
                          "/ql/cell activeCellId = 0\n"
                          "/ql/cell cellType = 'it\\'s\\x1b'\n"
                          "/ql/cell product = ''\n"
                          "/ql/cell electionMgrSupported = True\n"
                          "/ql/cell electionMgrSupportedInitialized = False\n"
                          "/ql/cell cpuBmcMode = False\n"
                          "/ql/cell cpuBmcModeInitialized = False\n"
                          "/ql/g Mox::GenerationEntity\n"
                          "/ql/g generation = Value('Mox::Generation', ** {'id': 7, 'valid': True})\n";

// The state without what a name may not hold: a "/".
std::string plainState() {
    std::string text = state;
    for (std::size_t at = 0; (at = text.find("g%2f", at)) != std::string::npos;) text.replace(at, 4, "g%25");
    return text;
}

class MoxLiveTest : public testing::Test {
protected:
    void serve(std::string const& text, std::vector<std::string> arguments = {}) {
        server_.reset();
        arguments.insert(arguments.begin(), {"serve", socket_, folder_.write("state", text)});
        server_ = moxBeside(arguments);
        server_->until("serving unix:" + socket_ + "\n");
    }
    Outcome ask(std::string const& command, std::vector<std::string> arguments = {}) const {
        arguments.insert(arguments.begin(), {command, socket_});
        return mox(arguments);
    }
    // The answer to what must be fine.
    std::string answer(std::string const& command, std::vector<std::string> const& arguments = {}) const {
        Outcome const outcome = ask(command, arguments);
        EXPECT_EQ(outcome.err, "");
        EXPECT_EQ(outcome.code, 0);
        return outcome.out;
    }
    std::string failure(
        std::string const& command, std::vector<std::string> const& arguments = {}, int code = 1) const {
        Outcome const outcome = ask(command, arguments);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(outcome.code, code);
        return outcome.err;
    }
    std::unique_ptr<Beside> watch(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {"watch", socket_});
        return moxBeside(arguments);
    }

    // Many changes of one attribute, by one peer.
    void writeOften(Vel::U32 times) const {
        Mount::Loop loop;
        Mount::ClientOptions options;
        options.path = "ql/g";
        options.wantsToWrite = true;
        auto const place = Vel::Dir::newEntity("");
        Mount::Client client(loop, Mount::Address::unixSocket(socket_.c_str()), place, "g", options);
        ASSERT_TRUE(client.sync(std::chrono::seconds(60))) << client.error();
        for (Vel::U32 id = 0; id < times; ++id) {
            Mount::Answer answer(loop);
            client.replica().write(*client.replica().root(), Vel::attributeId<Mox::GenerationEntity>("generation"),
                Mox::Generation(1000 + id, true), answer.told());
            EXPECT_TRUE(answer.wait(std::chrono::seconds(60)).hasChanged());
        }
    }

    Folder folder_;
    std::string socket_ = folder_.path() + "/s";
    std::unique_ptr<Beside> server_;
};

// --- serve ---

TEST_F(MoxLiveTest, ServesAStateFileThatIsWrittenAgain) {
    serve(plainState());
    EXPECT_EQ(answer("tree", {"--state"}), plainState());
}

TEST_F(MoxLiveTest, ServesUntilASignal) {
    serve("");
    Outcome const outcome = server_->end();
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.out, "serving unix:" + socket_ + "\n");
    EXPECT_EQ(outcome.err, "");
}

TEST_F(MoxLiveTest, TakesItsSocketAwayAtEachSignalThatEndsIt) {
    for (int const signal : {SIGHUP, SIGINT, SIGTERM}) {
        serve("");
        EXPECT_EQ(server_->end(signal).code, 0);
        EXPECT_FALSE(std::filesystem::exists(socket_)) << "after signal " << signal;
    }
}

TEST_F(MoxLiveTest, ServesOnWithoutATerminalWhenAskedTo) {
    auto const server = std::make_unique<Beside>(
        std::vector<std::string>{"sh", "-c", "trap '' HUP; exec " MOX_TOOL_PATH " serve " + socket_});
    server->until("serving");
    ::kill(server->id(), SIGHUP);
    EXPECT_EQ(answer("ls"), "");
    EXPECT_EQ(server->end().code, 0);
}

// A descriptor of that number would be written to by whoever prints.
TEST_F(MoxLiveTest, ServesWithClosedStandardFiles) {
    auto const server = std::make_unique<Beside>(
        std::vector<std::string>{"sh", "-c", "exec " MOX_TOOL_PATH " serve " + socket_ + " <&- >&- 2>&-"});
    EXPECT_THAT(mox({"watch", socket_, "--until-synced", "--timeout", "30"}).out, HasSubstr("# synced: 1 entity\n"));
    for (std::string const file : {"0", "1", "2"})
        EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(server->id()) + "/fd/" + file), "/dev/null");
    server->end();
}

TEST_F(MoxLiveTest, TellsThePortThatItChose) {
    auto const server = moxBeside({"serve", "tcp:127.0.0.1:0", folder_.write("state", plainState())});
    std::string const out = server->until("\n");
    ASSERT_THAT(out, StartsWith("serving tcp:127.0.0.1:"));
    EXPECT_EQ(mox({"get", out.substr(8, out.size() - 9), "/ql/cell", "cellId"}).out, "3\n");
}

TEST_F(MoxLiveTest, ServesATrieOfPrefixes) {
    std::string const file = folder_.write("racks", "site {north}\nsite/rack1.port7 {lab}\n");
    serve("", {"--trie", "/where/paths=" + file});
    EXPECT_EQ(answer("get", {"/where/paths/site/%2frack1/.port7/@state", "tags"}), "'lab,north'\n");
    EXPECT_EQ(answer("get", {"/where/paths/site/rack1.port7", "present"}), "True\n");
    // What is captured of it is served like the trie.
    std::string const captured = answer("tree", {"--state"});
    serve(captured);
    EXPECT_EQ(answer("tree", {"--state"}), captured);
}

TEST_F(MoxLiveTest, ServeSaysWhatIsWrongWithItsOptions) {
    EXPECT_EQ(failure("serve", {"--trie", "x"}, 2), "mox: --trie: x is not PATH=FILE, such as /paths=prefixes.txt\n");
    EXPECT_THAT(failure("serve", {"--writer", "root"}, 2), HasSubstr("give --writable, too\n"));
    EXPECT_THAT(failure("serve", {"--cert", "x"}, 2), HasSubstr("--cert, --key and --authority belong together"));
    EXPECT_THAT(failure("serve", {"/nowhere/at/all"}, 2), HasSubstr("cannot open /nowhere/at/all: No such file"));
    serve("");
    EXPECT_THAT(failure("serve"), HasSubstr("Address already in use"));
}

// --- ls, tree ---

TEST_F(MoxLiveTest, ListsWhatIsBelow) {
    serve(plainState());
    EXPECT_EQ(answer("ls"), "a%20b  Vel::Dir\nql     Vel::Dir\n");
    EXPECT_EQ(answer("ls", {"ql//"}), "cell  Cell::Status\ng     Mox::GenerationEntity\n");
    EXPECT_EQ(answer("ls", {"/ql/g"}), "");
    EXPECT_EQ(json::parse(answer("ls", {"/ql", "--json"})), json::parse(R"({"path": "/ql", "members": [
        {"name": "cell", "type": "Cell::Status"}, {"name": "g", "type": "Mox::GenerationEntity"}]})"));
}

TEST_F(MoxLiveTest, DrawsATree) {
    serve("/a/r Redundancy::RedundancyStatus\n/a/r activeCellId = 1\n/b Vel::Dir\n");
    EXPECT_EQ(answer("tree"), "/  Vel::Dir\n"
                              "|-- a  Vel::Dir\n"
                              "|   `-- r  Redundancy::RedundancyStatus\n"
                              "|       `-- activeCellId = 1\n"
                              "`-- b  Vel::Dir\n");
    EXPECT_EQ(answer("tree", {"--depth", "1"}), "/  Vel::Dir\n|-- a  Vel::Dir  ...\n`-- b  Vel::Dir\n");
    EXPECT_EQ(mox({"tree", socket_, "/a"}, {{"LANG", "C.UTF-8"}}).out,
        "/a  Vel::Dir\n└─ r  Redundancy::RedundancyStatus\n   └─ activeCellId = 1\n");
    EXPECT_EQ(json::parse(answer("tree", {"/a/r", "--json"})), json::parse(R"({"entities": [{"path": "/a/r",
        "type": "Redundancy::RedundancyStatus", "attributes": {"activeCellId": 1}, "members": []}]})"));
}

TEST_F(MoxLiveTest, ShortensLongValuesInPicturesOnly) {
    std::string const text(1'000'000, 'x');
    serve("/c Cell::Status\n/c product = '" + text + "'\n");
    EXPECT_THAT(answer("tree"), HasSubstr("product = '" + std::string(199, 'x') + "... (1000002 bytes in all)\n"));
    EXPECT_EQ(answer("get", {"/c", "product"}), "'" + text + "'\n");
}

// --- get ---

TEST_F(MoxLiveTest, GetsAttributes) {
    serve(plainState());
    EXPECT_EQ(answer("get", {"/ql/cell", "cellType"}), "'it\\'s\\x1b'\n");
    EXPECT_EQ(answer("get", {"/a b/g%", "activeCellId"}), "7\n");
    EXPECT_EQ(answer("get", {"/ql/g"}),
        "/ql/g Mox::GenerationEntity\n"
        "attribute   type             value\n"
        "generation  Mox::Generation  Value('Mox::Generation', ** {'id': 7, 'valid': True})\n");
    EXPECT_EQ(json::parse(answer("get", {"/ql/g", "--json"})), json::parse(R"({"path": "/ql/g",
        "type": "Mox::GenerationEntity", "attributes": {"generation": {"id": 7, "valid": true}}})"));
    EXPECT_EQ(json::parse(answer("get", {"/ql/cell", "cellId", "--json"})),
        json::parse(R"({"path": "/ql/cell", "attribute": "cellId", "type": "Cell::CellId", "value": 3})"));
}

TEST_F(MoxLiveTest, AnswersWithWhatTheServerHasAndNotWithThisMachine) {
    serve("/ql/cell Cell::Status\n");
    EXPECT_EQ(mox({"get", socket_, "/ql/cell", "cellId"}, {{"CELLID", "9"}}).out, "0\n");
}

TEST_F(MoxLiveTest, SaysWhatThereIsInstead) {
    serve(plainState());
    EXPECT_EQ(failure("get", {"/ql/cel"}), "mox: /ql has no cel; did you mean cell?\n");
    EXPECT_EQ(failure("get", {"/ql/nothing/here"}), "mox: /ql has no nothing, only cell, g\n");
    EXPECT_EQ(failure("get", {"/ql/g/x"}), "mox: /ql/g has no x; there is nothing below this Mox::GenerationEntity\n");
    EXPECT_EQ(failure("get", {"/ql/cell/product"}),
        "mox: /ql/cell has no entity product, but an attribute: \"mox get " + socket_ + " /ql/cell product\"\n");
    EXPECT_EQ(failure("get", {"/ql/g", "gen"}), "mox: a Mox::GenerationEntity has no attribute gen; did you mean "
                                                "generation?\n");
    EXPECT_EQ(failure("get", {"/ql", "entry"}),
        "mox: entry is a collection: \"mox ls " + socket_ + " /ql\" lists its members\n");
}

TEST_F(MoxLiveTest, SaysWhyItCannotConnect) {
    EXPECT_EQ(failure("get", {"/"}), "mox: unix:" + socket_ + ": there is no such socket; nobody serves there\n");
    EXPECT_EQ(mox({"ls", "nonsense"}).err,
        "mox: 'nonsense' is no address: expected unix:PATH, tcp:HOST:PORT or tls:HOST:PORT\n");
    EXPECT_EQ(mox({"ls", "nonsense"}).code, 2);
    EXPECT_THAT(mox({"ls", "tls:localhost:1"}).err, HasSubstr("needs --cert FILE --key FILE --authority FILE"));
    EXPECT_EQ(mox({"ls", "tcp:1.2.3.4:80"}).err,
        "mox: tcp:1.2.3.4:80: plain TCP is for this machine alone (127.0.0.1, [::1]); with other machines use tls:\n");
    EXPECT_EQ(failure("ls", {"--timeout", "-1"}, 2), "mox: --timeout: a number of seconds expected, not less than 0\n");
}

TEST_F(MoxLiveTest, SaysWhenTheUserIsRefused) {
    if (::getuid() != 0) GTEST_SKIP() << "needs root, to be somebody else";
    std::filesystem::permissions(folder_.path(), std::filesystem::perms::all);
    serve("", {"--user", "nobody"});
    EXPECT_THAT(failure("ls"), HasSubstr("root"));
}

// --- set ---

TEST_F(MoxLiveTest, SetsAValue) {
    serve(plainState(), {"--writable"});
    EXPECT_EQ(answer("set", {"/ql/cell", "product", "'a\\nb'"}), "'a\\nb'\n");
    EXPECT_EQ(answer("get", {"/ql/cell", "product"}), "'a\\nb'\n");
    EXPECT_EQ(answer("set", {"/ql/cell", "product", "'a\\nb'"}), "'a\\nb'\n");  // what it is already
    EXPECT_EQ(json::parse(answer("set", {"/ql/cell", "cellId", "4", "--json"})),
        json::parse(R"({"path": "/ql/cell", "attribute": "cellId", "type": "Cell::CellId", "value": 4,
            "changed": true})"));
}

TEST_F(MoxLiveTest, TakesAWordForAStringAndSaysSoWhenAsked) {
    serve(plainState(), {"--writable"});
    EXPECT_EQ(answer("set", {"/ql/cell", "product", "uplink"}), "'uplink'\n");
    Outcome const outcome = ask("set", {"/ql/cell", "product", "7", "--verbose"});
    EXPECT_EQ(outcome.err, "mox: product: 7 is taken for the text '7'\n");
    EXPECT_EQ(outcome.out, "'7'\n");
    EXPECT_THAT(
        failure("set", {"/ql/cell", "product", "two words"}, 2), HasSubstr("expected a string in single quotes"));
}

TEST_F(MoxLiveTest, PointsAtWhatIsNoValue) {
    serve(plainState(), {"--writable"});
    EXPECT_EQ(failure("set", {"/ql/cell", "cellId", "70000"}, 2).substr(0, 29), "mox: this is no Cell::CellId:");
    EXPECT_THAT(failure("set", {"/ql/cell", "cpuBmcMode", "Yes"}, 2), EndsWith("\n    Yes\n    ^\n"));
    EXPECT_EQ(answer("get", {"/ql/cell", "cellId"}), "3\n");
}

TEST_F(MoxLiveTest, SetsAValueOnlyIfItIsTheExpectedOne) {
    serve(plainState(), {"--writable"});
    EXPECT_EQ(answer("set", {"/ql/cell", "cellId", "4", "--if", "3"}), "4\n");
    EXPECT_THAT(failure("set", {"/ql/cell", "cellId", "5", "--if", "3"}),
        HasSubstr("mox: cellId is 4, and not 3; nothing has changed"));
    EXPECT_EQ(answer("get", {"/ql/cell", "cellId"}), "4\n");
    EXPECT_THAT(failure("set", {"/ql/cell", "cellId"}, 2), HasSubstr("VALUE is missing"));
    EXPECT_THAT(failure("set", {"/ql/cell", "cellId", "4", "--delete"}, 2), HasSubstr("--delete goes with --at KEY"));
}

TEST_F(MoxLiveTest, SaysThatAServerIsReadOnly) {
    serve(plainState());
    EXPECT_THAT(failure("set", {"/ql/cell", "cellId", "4"}), HasSubstr("is read-only for you"));
    serve(plainState(), {"--writable", "--writer", "nobody"});
    EXPECT_THAT(failure("set", {"/ql/cell", "cellId", "4"}), HasSubstr("is read-only for you"));
}

// --- watch ---

TEST_F(MoxLiveTest, WatchShowsWhatIsThereAndThenChanges) {
    serve("/r Redundancy::RedundancyStatus\n", {"--writable"});
    auto const watching = watch({"/r", "--count", "2", "--time", "none"});
    EXPECT_EQ(watching->until("# synced"), "/r Redundancy::RedundancyStatus\n"
                                           "/r activeCellId = 4294967295\n"
                                           "# synced: 1 entity\n");
    answer("set", {"/r", "activeCellId", "1"});
    answer("set", {"/r", "activeCellId", "2"});
    Outcome const outcome = watching->wait();
    EXPECT_EQ(outcome.code, 0);
    EXPECT_THAT(outcome.out, EndsWith("# synced: 1 entity\n/r activeCellId = 1\n/r activeCellId = 2\n"));
}

TEST_F(MoxLiveTest, WatchPrintsAStateFile) {
    serve(plainState());
    EXPECT_EQ(answer("watch", {"--until-synced", "--timeout", "30"}), plainState() + "# synced: 6 entities\n");
}

TEST_F(MoxLiveTest, WatchTellsWhatHasChangedWhileTheServerWasAway) {
    serve("/a Vel::Dir\n/b Vel::Dir\n/b/c Vel::Dir\n/r Redundancy::RedundancyStatus\n");
    auto const watching = watch({"--time", "none"});
    watching->until("# synced");
    server_->end();
    EXPECT_THAT(watching->until("# stale"), HasSubstr("# synced: 5 entities\n# stale: "));
    serve("/a Vel::Dir\n/a/n/r Redundancy::RedundancyStatus\n/r Redundancy::RedundancyStatus\n/r activeCellId = 5\n");
    std::string const out = watching->until("# synced: 5 entities\n# stale") + watching->until("activeCellId = 5\n");
    std::string const all = watching->until("- /b\n");
    EXPECT_THAT(all, HasSubstr("\n+ /a/n Vel::Dir\n"));
    EXPECT_THAT(all, HasSubstr("\n+ /a/n/r Redundancy::RedundancyStatus\n/a/n/r activeCellId = 4294967295\n"));
    EXPECT_THAT(all, HasSubstr("\n/r activeCellId = 5\n"));
    EXPECT_THAT(all, testing::Not(HasSubstr("/b/c\n")));  // it goes with what it is below
}

TEST_F(MoxLiveTest, WatchWaitsForAServer) {
    auto const watching = watch({"--until-synced", "--timeout", "30"});
    EXPECT_THAT(watching->until("\n"), StartsWith("# error: unix:" + socket_ + ": there is no such socket"));
    serve("");
    EXPECT_THAT(watching->wait().out, EndsWith("/ Vel::Dir\n# synced: 1 entity\n"));
}

TEST_F(MoxLiveTest, WatchWritesOneJsonObjectALine) {
    serve("/r Redundancy::RedundancyStatus\n", {"--writable"});
    auto const watching = watch({"--json", "--count", "1", "--time", "none", "/r"});
    watching->until("synced");
    answer("set", {"/r", "activeCellId", "1"});
    EXPECT_EQ(watching->wait().out,
        R"({"event":"entity","path":"/r","type":"Redundancy::RedundancyStatus"}
{"event":"set","path":"/r","attribute":"activeCellId","value":4294967295}
{"event":"synced","path":"/r","entities":1}
{"event":"set","path":"/r","attribute":"activeCellId","value":1}
)");
}

TEST_F(MoxLiveTest, WatchLeavesInTime) {
    Outcome const never = ask("watch", {"--timeout", "0.1"});
    EXPECT_EQ(never.code, 1);
    EXPECT_THAT(never.err, HasSubstr("mox: not synced in 0.1 s, since: unix:" + socket_));
    serve("");
    EXPECT_EQ(ask("watch", {"--timeout", "1.5"}).code, 0);
    EXPECT_EQ(ask("watch", {"--timeout", "1.5", "--count", "1"}).err, "mox: fewer changes came in 1.5 s\n");
}

TEST_F(MoxLiveTest, WatchTellsWhenAChangeCame) {
    auto const change = [&](std::vector<std::string> const& arguments, Environment const& environment = {}) {
        serve("/r Redundancy::RedundancyStatus\n", {"--writable"});
        std::vector<std::string> all = {"watch", socket_, "/r", "--count", "1"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        auto const watching = moxBeside(all, environment);
        EXPECT_THAT(watching->until("synced"), testing::Not(ContainsRegex("[0-9]:[0-9][0-9] /r")));
        answer("set", {"/r", "activeCellId", "1"});
        std::string const out = watching->wait().out;
        return out.substr(out.rfind('\n', out.size() - 2) + 1);
    };
    std::string const date = "[0-9]{4}-[0-9]{2}-[0-9]{2}", time = "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}";
    std::string const what = "/r activeCellId = 1\n";
    EXPECT_THAT(change({}), MatchesRegex(date + " " + time + " " + what));
    EXPECT_THAT(change({"--time", "local"}), MatchesRegex(date + " " + time + " " + what));
    EXPECT_THAT(change({"--time", "utc"}), MatchesRegex(date + " " + time + "Z " + what));
    EXPECT_THAT(change({"--time", "relative"}), MatchesRegex("\\+[0-9]+\\.[0-9]{3} " + what));
    EXPECT_EQ(change({"--time", "none"}), what);
    auto const timeInJson = [&](std::string const& form) {
        return json::parse(change({"--json", "--time", form}, {{"TZ", "XYZ-1:30"}}))["time"].get<std::string>();
    };
    EXPECT_THAT(timeInJson("local"), MatchesRegex(date + "T" + time + "\\+01:30"));
    EXPECT_THAT(timeInJson("utc"), MatchesRegex(date + "T" + time + "Z"));
    EXPECT_THAT(timeInJson("relative"), MatchesRegex("PT[0-9]+\\.[0-9]{3}S"));
}

TEST_F(MoxLiveTest, WatchTellsWhenAConnectionWasLostButNotInAStateFile) {
    auto const watching = watch({"--time", "utc"});
    EXPECT_THAT(watching->until("\n"), StartsWith("# error: "));
    serve("");
    EXPECT_THAT(watching->until("# synced"), HasSubstr("\n/ Vel::Dir\n# synced: 1 entity\n"));
    server_->end();
    EXPECT_THAT(watching->until("# stale"), ContainsRegex("\n[-0-9]+ [:0-9]+\\.[0-9]+Z # stale"));
}

TEST_F(MoxLiveTest, WatchRefusesNumbersAndFormsThatAreNone) {
    std::string const none = " is no number from 0 to 18446744073709551615\n";
    EXPECT_EQ(failure("watch", {"--count", "-1"}, 2), "mox: --count: -1" + none);
    EXPECT_EQ(failure("watch", {"--count", "18446744073709551616"}, 2), "mox: --count: 18446744073709551616" + none);
    EXPECT_EQ(failure("watch", {"--count", "1x"}, 2), "mox: --count: 1x" + none);
    EXPECT_EQ(failure("tree", {"--depth", "-1"}, 2), "mox: --depth: -1" + none);
    EXPECT_EQ(failure("watch", {"--time", "now"}, 2), "mox: --time: now is none of local, utc, relative and none\n");
}

TEST_F(MoxLiveTest, WatchEndsWhenNobodyReads) {
    serve("");
    auto const watching = watch({});
    watching->until("# synced");
    watching->closeOutput();
    EXPECT_EQ(watching->wait().err, "");
}

// --- types that the tool has never heard of ---

std::string const tanks = "/ Vel::Dir\n"
                          "/a Test::Tank\n"
                          "/a level = Value('Test::Level', ** {'litres': 1.5, 'measured': True})\n"
                          "/a most = 7\n"
                          "/a overflow = /b\n"
                          "/a inlet 5 = /b\n"
                          "/a note 'x \\' = y' = 8\n"
                          "/a/@inlet[1] Test::Tank 'inner'\n"
                          "/a/@inlet[1] level = Value('Test::Level', ** {'litres': 0.0, 'measured': False})\n"
                          "/a/@inlet[1] most = 0\n"
                          "/a/@inlet[1] overflow = /a\n"
                          "/b Test::Tank\n"
                          "/b level = Value('Test::Level', ** {'litres': 0.0, 'measured': False})\n"
                          "/b most = 0\n"
                          "/b overflow = None\n";

TEST_F(MoxLiveTest, KnowsTheTypesOfALibrary) {
    serve(tanks, {"--module", TANK_LIBRARY, "--writable"});
    EXPECT_EQ(answer("tree", {"--state", "--module", TANK_LIBRARY}), tanks);
    EXPECT_EQ(answer("ls", {"/a", "--module", TANK_LIBRARY}), "@overflow                Test::Tank\n"
                                                              "@inlet[1]                Test::Tank\n"
                                                              "@note['x%20\\'%20=%20y']  = 8\n");
    EXPECT_EQ(answer("get", {"/a/@inlet[1]", "overflow", "--module", TANK_LIBRARY}), "/a\n");
    EXPECT_EQ(json::parse(answer("get", {"/a", "level", "--json", "--module", TANK_LIBRARY}))["value"],
        json::parse(R"({"litres": 1.5, "measured": true})"));
    EXPECT_THAT(failure("set", {"/a", "most", "200", "--timeout", "0.5", "--module", TANK_LIBRARY}),
        HasSubstr("the server took it, but most is 100"));
    EXPECT_EQ(answer("set", {"/a", "note", "--at", "'why not'", "9", "--module", TANK_LIBRARY}), "9\n");
    EXPECT_EQ(json::parse(answer(
                  "set", {"/a", "note", "--at", "'why not'", "10", "--if", "9", "--json", "--module", TANK_LIBRARY})),
        json::parse(R"({"path": "/a", "attribute": "note", "key": "why not", "type": "U32", "value": 10,
            "changed": true})"));
    EXPECT_THAT(failure("set", {"/a", "note", "--at", "'why not'", "11", "--if", "9", "--module", TANK_LIBRARY}),
        HasSubstr("note is 10, and not 9; nothing has changed"));
    EXPECT_EQ(answer("set", {"/a", "note", "--at", "'why not'", "--delete", "--module", TANK_LIBRARY}), "");
    EXPECT_THAT(failure("set", {"/a", "inlet", "--at", "1", "7", "--module", TANK_LIBRARY}),
        HasSubstr("inlet is no collection of values"));
}

TEST_F(MoxLiveTest, SetsSeveralValuesAsOne) {
    serve(tanks, {"--module", TANK_LIBRARY, "--writable"});
    auto const set = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "/b");
        arguments.insert(arguments.end(), {"--module", TANK_LIBRARY});
        return arguments;
    };
    std::string const level = "level=Value('Test::Level', ** {'litres': 3.0, 'measured': True})";
    EXPECT_EQ(answer("set", set({"most=7", level})),
        "most = 7\nlevel = Value('Test::Level', ** {'litres': 3.0, 'measured': True})\n");
    EXPECT_EQ(json::parse(answer("set", set({"most=8", level, "--if", "most=7", "--json"}))),
        json::parse(R"({"path": "/b", "changed": true, "values": {"most": 8,
            "level": {"litres": 3.0, "measured": true}}})"));
    EXPECT_THAT(failure("set", set({"most=9", level, "--if", "most=7"})),
        HasSubstr("most is 8, and not 7; nothing has changed"));
    EXPECT_THAT(failure("set", set({"most=9", "level"}), 2), HasSubstr("level is not ATTRIBUTE=VALUE"));
    EXPECT_THAT(failure("set", set({"most=9", "most=8"}), 2), HasSubstr("most is given twice"));
    EXPECT_THAT(failure("set", set({"most=9", "--if", "level=1"}), 2), HasSubstr("level is not to be changed"));
    EXPECT_THAT(failure("set", set({"most=9", "--delete"}), 2), HasSubstr("go with one ATTRIBUTE"));
    EXPECT_THAT(failure("set", set({"most=9", "overflow=None"})), HasSubstr("only values can be set"));
    EXPECT_THAT(failure("set", set({"most", "9", "8"}), 2), HasSubstr("one VALUE for one ATTRIBUTE"));
    EXPECT_THAT(failure("set", set({"most", "9", "--if", "1", "--if", "2"}), 2), HasSubstr("--if comes once"));
    EXPECT_THAT(failure("set", set({"most=9", "dread=8"})), HasSubstr("has no attribute"));
    EXPECT_THAT(failure("set", set({"most=90", "level=Value('Test::Level', ** {'litres': -1.0, 'measured': True})"})),
        HasSubstr("the server does not take it: level: a tank holds no less than nothing"));
    EXPECT_EQ(answer("get", {"/b", "most", "--module", TANK_LIBRARY}), "8\n");
}

TEST_F(MoxLiveTest, CallsMethods) {
    serve(tanks, {"--module", TANK_LIBRARY, "--writable"});
    auto const call = [&](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "/b");
        arguments.insert(arguments.end(), {"--module", TANK_LIBRARY});
        return arguments;
    };
    EXPECT_EQ(answer("call", call({"fill", "6", "4"})), "1.5\n");
    EXPECT_EQ(answer("get", {"/b", "most", "--module", TANK_LIBRARY}), "4\n");
    EXPECT_EQ(json::parse(answer("call", call({"fill", "6.0", "3", "--json"}))),
        json::parse(R"({"path": "/b", "method": "fill", "type": "F64", "result": 2.0})"));
    EXPECT_EQ(answer("call", call({"empty"})), "");
    EXPECT_EQ(
        json::parse(answer("call", call({"empty", "--json"}))), json::parse(R"({"path": "/b", "method": "empty"})"));
    EXPECT_THAT(failure("call", call({"fill", "6", "0"})), HasSubstr("the server does not take it: there is no inlet"));
    EXPECT_THAT(
        failure("call", call({"fill", "6"}), 2), HasSubstr("fill(litres, inlets) takes 2 arguments, and not 1"));
    EXPECT_THAT(failure("call", call({"fill", "6", "x"}), 2), HasSubstr("this is no U32"));
    EXPECT_THAT(failure("call", call({"joinTo", "7"})), HasSubstr("takes an entity"));
    EXPECT_THAT(failure("call", call({"most"})), HasSubstr("Test::Tank has no method most"));
    serve(tanks, {"--module", TANK_LIBRARY});
    EXPECT_THAT(failure("call", call({"empty"})), HasSubstr("is read-only for you"));
}

TEST_F(MoxLiveTest, ServesByRights) {
    std::string const me = "user:" + std::to_string(::geteuid());
    std::string const rules = me + " / read\n" + me + " /ql/cell write\n" + me + " '/a b' nothing\n";
    serve(plainState(), {"--rights", folder_.write("rights.txt", rules)});
    EXPECT_THAT(answer("tree"), Not(HasSubstr("a b")));
    EXPECT_EQ(failure("get", {"/a%20b", "x"}), "mox: / has no a b, only ql\n");
    EXPECT_EQ(failure("get", {"/a%20c", "x"}), "mox: / has no a c, only ql\n");
    answer("set", {"/ql/cell", "cellId", "4"});
    EXPECT_EQ(json::parse(answer("why", {"--json"}))["changes"].size(), 1u);
}

TEST_F(MoxLiveTest, TellsWhoHasChangedWhat) {
    serve(plainState(), {"--writable"});
    EXPECT_THAT(ask("why").err, HasSubstr("nobody has asked for a change of it"));
    answer("set", {"/ql/cell", "cellId", "4"});
    answer("set", {"/ql/cell", "cellId", "5"});
    answer("set", {"/a%20b/g%25", "activeCellId", "8"});
    Outcome const rejected = ask("set", {"/ql/cell", "cellId", "9", "--if", "1"});
    EXPECT_EQ(rejected.code, 1);
    std::string const table = answer("why", {"/ql/cell", "cellId"});
    EXPECT_THAT(
        table, ContainsRegex("20[0-9-]+ [0-9:.]+ +[^ ]+ \\(process [0-9]+\\) +/ql/cell +cellId +5 +9 +differs"));
    EXPECT_LT(table.find("differs"), table.find("done")) << "the newest comes first";
    json const changes = json::parse(answer("why", {"/ql/cell", "--json"}))["changes"];
    ASSERT_EQ(changes.size(), 3u);
    EXPECT_EQ(changes[1]["before"], "4");
    EXPECT_EQ(changes[1]["wanted"], "5");
    EXPECT_EQ(changes[1]["result"], "done");
    EXPECT_EQ(json::parse(answer("why", {"--json"}))["changes"].size(), 4u);
    EXPECT_EQ(json::parse(answer("why", {"/a%20b/g%25", "--json"}))["changes"][0]["path"], "/a b/g%");
    Outcome const none = ask("why", {"/ql/g"});
    EXPECT_EQ(none.code, 1);
    EXPECT_EQ(none.out, "");
}

TEST_F(MoxLiveTest, TellsWhoHasSetAValueHoweverLongAgo) {
    serve(plainState(), {"--writable"});
    answer("set", {"/ql/cell", "cellId", "4"});
    writeOften(1100);
    json const changes = json::parse(answer("why", {"/ql/cell", "cellId", "--json"}))["changes"];
    ASSERT_EQ(changes.size(), 1u);
    EXPECT_EQ(changes[0]["wanted"], "4");
    EXPECT_EQ(json::parse(answer("why", {"--json"}))["changes"].size(), 1025u) << "no change is shown twice";
}

// The server describes its types to a tool that has no library of them.
TEST_F(MoxLiveTest, NeedsNoLibraryForTheTypesOfAServer) {
    serve(tanks, {"--module", TANK_LIBRARY, "--writable"});
    EXPECT_EQ(answer("tree", {"--state"}), tanks);
    EXPECT_EQ(answer("ls", {"/a"}), "@overflow                Test::Tank\n"
                                    "@inlet[1]                Test::Tank\n"
                                    "@note['x%20\\'%20=%20y']  = 8\n");
    EXPECT_EQ(answer("get", {"/a/@inlet[1]", "overflow"}), "/a\n");
    EXPECT_EQ(json::parse(answer("get", {"/a", "level", "--json"}))["value"],
        json::parse(R"({"litres": 1.5, "measured": true})"));
    EXPECT_EQ(answer("set", {"/a", "level", "Value('Test::Level', ** {'litres': 2.0, 'measured': False})"}),
        "Value('Test::Level', ** {'litres': 2.0, 'measured': False})\n");
    EXPECT_THAT(
        failure("set", {"/a", "most", "200", "--timeout", "0.5"}), HasSubstr("the server took it, but most is 100"));
    EXPECT_EQ(answer("set", {"/a", "note", "--at", "'why not'", "9"}), "9\n");
    EXPECT_THAT(failure("set", {"/a", "note", "--at", "'why not'", "11", "--if", "8"}),
        HasSubstr("note is 9, and not 8; nothing has changed"));
    EXPECT_EQ(answer("set", {"/a", "note", "--at", "'why not'", "--delete"}), "");
    EXPECT_THAT(answer("tree"), HasSubstr("overflow -> /b"));
    EXPECT_THAT(answer("watch", {"--until-synced", "--timeout", "30"}), HasSubstr("\n/a inlet 5 = /b\n"));
}

TEST_F(MoxLiveTest, EntitiesThatReferToEachOtherHaveOnePlaceEach) {
    serve("/a Test::Tank\n/b Test::Tank\n/a overflow = /b\n/b overflow = /a\n/a inlet 1 = /a\n",
        {"--module", TANK_LIBRARY});
    EXPECT_THAT(answer("tree", {"--module", TANK_LIBRARY}), HasSubstr("overflow -> /a"));
    EXPECT_THAT(answer("watch", {"--until-synced", "--timeout", "30", "--module", TANK_LIBRARY}),
        HasSubstr("\n/a inlet 1 = /a\n"));
}

// --- names ---

TEST_F(MoxLiveTest, PrintsAnyNameAsOneWord) {
    serve("/%1b%5b31m%20x Vel::Dir\n/%ff%c3%a9 Vel::Dir\n/%40at Vel::Dir\n/%41\xC3\xA9 Vel::Dir\n");
    EXPECT_EQ(answer("ls"), "%1b[31m%20x  Vel::Dir\n%40at        Vel::Dir\nA\xC3\xA9           Vel::Dir\n"
                            "%ff\xC3\xA9         Vel::Dir\n");
    EXPECT_EQ(answer("ls", {"/%ff%c3%a9"}), "");
    EXPECT_EQ(answer("ls", {"/%40at"}), "");
}

TEST_F(MoxLiveTest, TakesAnyDepth) {
    std::string path;
    for (int i = 0; i < 3000; ++i) path += "/d";
    serve(path + " Vel::Dir\n");
    EXPECT_EQ(answer("ls", {path}), "");
    EXPECT_THAT(answer("tree", {"--state"}), EndsWith("\n" + path + " Vel::Dir\n"));
}

TEST_F(MoxLiveTest, LeavesOutWhatHasAnEndlessPath) {
    serve("/" + std::string(70000, 'x') + "/y Vel::Dir\n/z Vel::Dir\n");
    Outcome const outcome = ask("ls");
    EXPECT_EQ(outcome.out, "z  Vel::Dir\n");
    EXPECT_EQ(outcome.err, "mox: what has a path of more than 64 KiB is left out\n");
    EXPECT_EQ(outcome.code, 1);
}

TEST_F(MoxLiveTest, ServesAHundredThousandEntities) {
    std::string text = "/ Vel::Dir\n";
    for (int i = 100'000; i < 200'000; ++i) text += "/" + std::to_string(i) + " Vel::Dir\n";
    serve(text);
    EXPECT_EQ(answer("tree", {"--state"}), text);
}

}  // namespace
