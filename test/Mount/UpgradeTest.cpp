#include "MountFixture.h"

#include <map>
#include <set>

// Agents that mount each other, each of them a program of its own, are replaced by newer versions one at a time, while
// all of them keep changing what they serve. test/upgrade/agent.cpp is the program; docs/upgrading.md says what is to
// become of the copies.
namespace {

using namespace MountTest;
using Lines = std::vector<std::string>;
using View = std::map<std::string, std::string>;  // "port0.speed" -> "7", "port0" -> "Fleet::Port"

// --- an agent ---

// One agent: a program that is asked by lines, and answers by lines.
class Agent {
public:
    Agent(int version, String const& folder, Lines const& words)
        : version_(version), child_([=](int socket) { become(socket, version, folder, words); }) {
        timeval const patience{enough.count(), 0};
        ::setsockopt(child_.socket(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    }

    int version() const { return version_; }
    bool answers() const { return answers_; }

    // The lines of the answer.
    Lines ask(std::string const& what) {
        say(child_.socket(), what + "\n");
        std::string const first = line();
        answers_ = first == what;
        EXPECT_EQ(first, what) << "version " << version_ << " has gone, or says nothing";
        Lines lines;
        for (std::string next = line(); !next.empty(); next = line()) lines.push_back(next);
        return lines;
    }
    // What it says of entities.
    static View viewOf(Lines const& lines) {
        View view;
        for (std::string const& line : lines)
            if (auto const at = line.find(" = "); at != std::string::npos)
                view[line.substr(0, at)] = line.substr(at + 3);
        return view;
    }

    // Has it end in good order, or kills it. Returns what it ended with, as a shell shows it.
    int end(bool inGoodOrder) {
        if (inGoodOrder)
            ::shutdown(child_.socket(), SHUT_WR);
        else
            child_.signal(SIGKILL);
        EXPECT_EQ(line(), "");  // when it ends, or when patience does
        if (inGoodOrder && !hasEnded_) return -1;
        siginfo_t how{};
        ::waitid(P_PID, static_cast<id_t>(child_.id()), &how, WEXITED | WNOWAIT);
        return how.si_code == CLD_EXITED ? how.si_status : 128 + how.si_status;
    }

private:
    static void become(int socket, int version, String const& folder, Lines const& words) {
        std::string const program = UPGRADE_AGENT + std::to_string(version);
        std::vector<char const*> arguments{program.c_str()};
        for (std::string const& word : words) arguments.push_back(word.c_str());
        arguments.push_back(nullptr);
        ::dup2(socket, STDIN_FILENO);
        ::dup2(socket, STDOUT_FILENO);
        if (::chdir(folder.charPtr()) == 0) ::execv(program.c_str(), const_cast<char* const*>(arguments.data()));
        std::perror(program.c_str());
        ::_exit(127);
    }
    // The next line; empty, too, if the agent has ended or says nothing.
    std::string line() {
        for (;;) {
            if (auto const end = said_.find('\n'); end != std::string::npos) {
                std::string const found = said_.substr(0, end);
                said_.erase(0, end + 1);
                return found;
            }
            char room[4096];
            ssize_t const got = ::recv(child_.socket(), room, sizeof room, 0);
            if (got <= 0) {
                hasEnded_ = got == 0 || errno == ECONNRESET;
                return {};
            }
            said_.append(room, static_cast<std::size_t>(got));
        }
    }

    int version_;
    Child child_;
    std::string said_;
    bool answers_ = true;
    bool hasEnded_ = false;
};

// --- what is expected ---

// What a reader of one version says of a source of another, sorted.
Lines const& differences(int reader, int source) {
    static std::string const load = "Fleet::Port.load: another version of Fleet::Load at the server: not copied";
    static std::map<std::pair<int, int>, Lines> const all{
        {{1, 2}, {"Fleet::Port.aged: only here: it keeps its value", load,
                     "Fleet::Port.serial: only at the server: not copied"}},
        {{1, 3}, {"Fleet::Port.aged: only here: it keeps its value", "Fleet::Port.label: only here: it keeps its value",
                     load, "Fleet::Port.queue: only at the server: not copied",
                     "Fleet::Port.serial: only at the server: not copied",
                     "Fleet::Port.speed: U64 at the server, U32 here: not copied",
                     "Fleet::Port.title: only at the server: not copied"}},
        {{2, 1}, {"Fleet::Port.aged: only at the server: not copied", load,
                     "Fleet::Port.serial: only here: it keeps its value"}},
        {{2, 3},
            {"Fleet::Port.label: only here: it keeps its value", "Fleet::Port.queue: only at the server: not copied",
                "Fleet::Port.speed: U64 at the server, U32 here: not copied",
                "Fleet::Port.title: only at the server: not copied"}},
        {{3, 1},
            {"Fleet::Port.aged: only at the server: not copied", "Fleet::Port.label: only at the server: not copied",
                load, "Fleet::Port.queue: only here: it keeps its value",
                "Fleet::Port.serial: only here: it keeps its value",
                "Fleet::Port.speed: U32 at the server, U64 here: not copied",
                "Fleet::Port.title: only here: it keeps its value"}},
        {{3, 2},
            {"Fleet::Port.label: only at the server: not copied", "Fleet::Port.queue: only here: it keeps its value",
                "Fleet::Port.speed: U32 at the server, U64 here: not copied",
                "Fleet::Port.title: only here: it keeps its value"}},
    };
    static Lines const none;
    auto const found = all.find({reader, source});
    return found == all.end() ? none : found->second;
}

std::string attributeOf(std::string const& name) {
    auto const dot = name.find('.');
    return dot == std::string::npos ? "" : name.substr(dot + 1);
}

// The part of a view that is copied from a source, or the part that is not.
View partOf(View view, int reader, int source, bool isCopied) {
    std::set<std::string> others;
    for (std::string const& line : differences(reader, source)) {
        std::string const attribute = attributeOf(line);
        others.insert(attribute.substr(0, attribute.find(':')));
    }
    std::erase_if(view, [&](auto const& line) { return others.contains(attributeOf(line.first)) == isCopied; });
    return view;
}

// What an attribute has that nothing was copied to.
std::string defaultOf(int version, std::string const& attribute) {
    if (attribute == "label" || attribute == "title") return "''";
    if (attribute == "queue") return "{}";
    if (attribute == "aged") return "False";
    if (attribute != "load") return "0";
    return std::string("Value('Fleet::Load', ** {'packets': 0, '") + (version == 1 ? "errors" : "drops") + "': 0})";
}

// --- the fleet ---

class UpgradeTest : public SharedTest {
protected:
    using Pair = std::pair<std::string, std::string>;  // a reader, and the source of its copy

    std::string const names[3] = {"a", "b", "c"};

    void start(std::string const& name, int version, bool isExact = false) {
        Lines words{name};
        for (std::string const& peer : names)
            if (peer != name) words.push_back(peer);
        if (isExact) words.insert(words.begin(), "--exact");
        agents[name] = std::make_unique<Agent>(version, folder.path(""), words);
    }
    Agent& agent(std::string const& name) { return *agents.at(name); }
    int version(std::string const& name) { return agent(name).version(); }

    // Asks until the answer is as it should be. Returns the last answer.
    Lines askUntil(std::string const& name, std::string const& what, std::function<bool(Lines const&)> const& isDone) {
        auto const end = std::chrono::steady_clock::now() + enough;
        for (;;) {
            Lines const lines = agent(name).ask(what);
            if (isDone(lines) || !agent(name).answers() || std::chrono::steady_clock::now() > end) return lines;
        }
    }

    // Ends an agent, and starts another one in its place. Notes what the others have of the one that has ended.
    void replace(std::string const& name, int newVersion, bool inGoodOrder) {
        ASSERT_EQ(agent(name).end(inGoodOrder), inGoodOrder ? 0 : 128 + SIGKILL);
        for (std::string const& reader : names) {
            if (reader == name) continue;
            Lines const copy =
                askUntil(reader, "copy " + name, [](Lines const& lines) { return isIn(lines, "stale"); });
            ASSERT_TRUE(isIn(copy, "stale")) << reader << " has not noticed that " << name << " has gone";
            before[{reader, name}] = Agent::viewOf(copy);
            before.erase({name, reader});
        }
        start(name, newVersion);
    }
    static bool isIn(Lines const& answer, char const* state) { return !answer.empty() && answer.front() == state; }

    // Sees an agent change what it serves, and has it stop. Returns what it has then.
    View stopped(std::string const& name) {
        Lines const first = agent(name).ask("own");
        EXPECT_NE(askUntil(name, "own", [&](Lines const& lines) { return lines != first; }), first);
        agent(name).ask("stop");
        return Agent::viewOf(agent(name).ask("own"));
    }

    // The others go on changing while one is compared with its copies.
    void expectCopiesOf(std::string const& source) {
        View const own = stopped(source);
        for (std::string const& reader : names) {
            if (reader == source) continue;
            ASSERT_NO_FATAL_FAILURE(expectCopy(reader, source, own));
        }
        agent(source).ask("go");
    }
    void expectCopy(std::string const& reader, std::string const& source, View const& own) {
        int const here = version(reader), there = version(source);
        SCOPED_TRACE(reader + " of version " + std::to_string(here) + " reads " + source + " of version " +
                     std::to_string(there));
        View const expected = partOf(own, here, there, true);
        Lines const copy = askUntil(reader, "copy " + source, [&](Lines const& lines) {
            return isIn(lines, "synced") && partOf(Agent::viewOf(lines), here, there, true) == expected;
        });
        ASSERT_TRUE(isIn(copy, "synced"));
        View const view = Agent::viewOf(copy);
        ASSERT_EQ(partOf(view, here, there, true), expected);
        expectKept({reader, source}, view);
        Lines noted = agent(reader).ask("differences " + source);
        std::sort(noted.begin(), noted.end());
        EXPECT_EQ(noted, differences(here, there));
    }
    // Ports that come and go may have gone and come again; the others have what they had when their source was the same
    // version as the reader, or the defaults.
    void expectKept(Pair const& pair, View const& view) {
        int const here = version(pair.first);
        for (auto const& [name, value] : partOf(view, here, version(pair.second), false)) {
            if (name > "port4") continue;
            bool const isNew = !before.contains(pair);
            EXPECT_EQ(value, isNew ? defaultOf(here, attributeOf(name)) : before[pair][name]) << name;
            kept += value != defaultOf(here, attributeOf(name));
        }
        before[pair] = view;
    }

    // Of the errors that clients have had, those that are not about an agent that was away.
    Lines errorsOf(std::string const& reader) {
        Lines errors;
        for (std::string const& peer : names)
            for (std::string const& line : agent(reader).ask("errors " + peer))
                if (!isAway(line)) errors.push_back(line);
        return errors;
    }
    static bool isAway(std::string const& error) {
        for (char const* const end : {"nobody serves there", "nobody listens there",
                 "the server has closed the connection", "(ECONNRESET)", "(EPIPE)"})
            if (error.ends_with(end)) return true;
        return false;
    }

    std::map<std::string, std::unique_ptr<Agent>> agents;
    std::map<Pair, View> before;  // a copy as it was when it was last looked at; none: it is new
    std::size_t kept = 0;         // values that were not copied, and are not the default
};

TEST_F(UpgradeTest, FleetIsUpgradedOneAtATimeWhileAllKeepsChanging) {
    for (std::string const& name : names) start(name, 1);
    for (std::string const& name : names) ASSERT_NO_FATAL_FAILURE(expectCopiesOf(name));
    struct Step {
        char const* name;
        int version;
    };
    bool inGoodOrder = false;
    // Every two versions meet, each as reader and as source; after the third step all three are there. At the end the
    // upgrade of one is taken back.
    for (Step const step : {Step{"a", 2}, {"b", 2}, {"a", 3}, {"c", 2}, {"b", 3}, {"c", 3}, {"b", 1}}) {
        SCOPED_TRACE(std::string(step.name) + " becomes version " + std::to_string(step.version));
        inGoodOrder = !inGoodOrder;
        ASSERT_NO_FATAL_FAILURE(replace(step.name, step.version, inGoodOrder));
        for (std::string const& name : names) ASSERT_NO_FATAL_FAILURE(expectCopiesOf(name));
        for (std::string const& name : names) EXPECT_EQ(errorsOf(name), Lines());
    }
    EXPECT_GT(kept, 0u);
    for (std::string const& name : names) EXPECT_EQ(agent(name).end(true), 0);
}

TEST_F(UpgradeTest, ExactReaderIsRefusedWithBothFingerprintsUntilTheVersionsAreTheSame) {
    start("a", 2);
    start("b", 1, true);
    std::string const refusal = "unix:a: refused: module Fleet has fingerprint 77f999cb93e0c27e at the server and "
                                "405806c9ae4e0b6d at the client";
    auto const isRefused = [&](Lines const& errors) {
        return std::find(errors.begin(), errors.end(), refusal) != errors.end();
    };
    Lines const errors = askUntil("b", "errors a", isRefused);
    EXPECT_TRUE(isRefused(errors)) << testing::PrintToString(errors);
    EXPECT_EQ(Agent::viewOf(agent("b").ask("copy a")), View());
    EXPECT_EQ(agent("b").ask("differences a"), Lines());

    ASSERT_EQ(agent("a").end(true), 0);
    start("a", 1);
    View const own = stopped("a");
    Lines const copy = askUntil(
        "b", "copy a", [&](Lines const& lines) { return isIn(lines, "synced") && Agent::viewOf(lines) == own; });
    EXPECT_EQ(Agent::viewOf(copy), own);
}

}  // namespace
