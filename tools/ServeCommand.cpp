#include "tools/Commands.h"
#include "tools/LiveCommand.h"
#include "tools/lib/Clean.h"
#include "tools/lib/Complaints.h"
#include "tools/lib/Connection.h"
#include "tools/lib/Input.h"
#include "tools/lib/RightsFile.h"
#include "tools/lib/StandardFiles.h"
#include "tools/lib/StateFile.h"
#include "tools/lib/TrieFile.h"

#include "Mount/Server.h"

#include "Vel/base/Exception.h"

#include <csignal>
#include <optional>
#include <thread>

namespace Tool {

namespace {

constexpr char help[] =
    R"~(Serves a tree of entities to other processes until SIGINT, SIGTERM or SIGHUP. When it can be connected to, it prints
"serving ADDRESS", with the port that was chosen if that was 0.

Addresses:
  unix:/run/mox.sock   a Unix socket; just /run/mox.sock, too. For this user and root, or those that --user names
  tcp:127.0.0.1:7400   loopback only, since nobody is asked who they are; port 0: any that is free
  tls:0.0.0.0:7400     both sides show a certificate that --authority has signed; --user then means its common name

A state file says what there is; "mox tree ADDRESS --state" prints one of a running server:
  # comment
  /ql/cell Cell::Status                  an entity, PATH TYPE; directories above it are made
  /ql/cell product = 'chassis'           a value, PATH ATTRIBUTE = VALUE, as the text of its type; a word needs no
                                         quotes, and 1 is taken for 1.0 where that is meant (--verbose tells)
  /a peer = /b                           a reference to another entity, or None

Examples:
  mox serve /tmp/s.sock state.txt                     what the file says
  mox tree /run/mox.sock --state >state.txt           captured where it runs, to be served elsewhere
  mox serve /tmp/s.sock state.txt --writable          and "mox set" may change it
  mox serve /tmp/s.sock --trie /paths=prefixes.txt    a trie from a file such as "mox trie" reads
  mox serve tcp:127.0.0.1:0 state.txt --user root --user nobody
  mox serve /tmp/s.sock state.txt --user 0 --user 1000 --rights rights.txt   "mox rights --help" has the file's form

A state file, and a file of prefixes, has at most 256 MiB. Of its mistakes the first 20 are shown, more are counted.
Exit code 0 after a signal, 1 when it cannot listen, 2 when the command line or a file is wrong.)~";

// For "mox why". This process changes nothing itself, but for what methods do that clients call, which `lastChanges` has.
constexpr std::size_t changesKept = 1024;
constexpr std::size_t lastChangesKept = 4096;

struct Options {
    std::string state;               // path of the state file; "-" means standard input; empty means none
    std::vector<std::string> tries;  // "PATH=FILE"
    bool writable = false;
    std::vector<std::string> users, writers;
    std::string rights;  // path of a file of rights; empty: none
};

using Vel::Dir;
using Vel::Entity;
using Vel::Ptr;

Ptr<Entity> rootFrom(std::string const& file) {
    if (file.empty()) return Dir::newEntity("");
    Input input(file);
    std::optional<std::string> const text = input.all();
    if (!text) throw Failure(badUsage, input.tooLarge(Input::largest) + ", which is the limit of a state file");
    Nature nature;
    nature.see(*text);
    Complaints complaints(input.name(), nature);
    auto const placeOf = [&](StateMistake const& at) {
        return input.name() + ":" + std::to_string(at.line) + ":" + std::to_string(at.offset + 1);
    };
    StateListener listener;
    listener.mistake = [&](StateMistake const& m) { complaints.add(placeOf(m), m.text, m.lineText, m.offset); };
    listener.taken = [&](StateMistake const& taken) { remark(placeOf(taken) + ": " + cleaned(taken.text)); };
    Ptr<Entity> const root = entitiesFromState(*text, listener);
    complaints.end();
    if (complaints.count() > 1)
        complain(input.name() + ": " + std::to_string(complaints.count()) + " mistakes; nothing is served");
    if (complaints.count() != 0) throw Failure(badUsage, "");
    return root;
}

// Adds a trie, read from a file of prefixes, to the tree at a path. Makes the directories above it.
void addTrie(Ptr<Entity>& root, std::string const& argument) {
    auto const equals = argument.find('=');
    if (!argument.starts_with('/') || equals == std::string::npos)
        throw Failure(badUsage, "--trie: " + shown(argument) + " is not PATH=FILE, such as /paths=prefixes.txt");
    std::string const path = argument.substr(0, equals);
    Input input(argument.substr(equals + 1));
    std::vector<Step> const steps = stepsOf(path);
    std::string const name = steps.empty() ? "" : steps.back().key;
    Ptr<Tags::TagTrie> const trie = readTrie(input, name).trie;
    if (steps.empty()) {
        if (Vel::ptr_cast<Dir>(root)->entries() != 0)
            throw Failure(badUsage, "--trie: the root cannot be a trie when there is anything else");
        root = trie;
        return;
    }
    try {
        Ptr<Entity> at = root;
        for (std::size_t i = 0; i < steps.size(); ++i) {
            bool const isDir = at->fwkType() == Vel::typeOf<Dir>();
            if (!isDir || !steps[i].attribute.empty())
                throw Vel::RangeException(Vel::String("a trie's path leads through directories only"));
            Ptr<Dir> const dir = Vel::ptr_cast<Dir>(at);
            if (i + 1 == steps.size())
                dir->entryIs(trie);
            else
                at = dir->createEntity("Vel::Dir", steps[i].key);
        }
    } catch (Vel::Exception const& error) {
        throw Failure(badUsage, "--trie " + shown(path) + ": " + cleaned(error.text().view()));
    }
}

std::vector<Vel::String> strings(std::vector<std::string> const& texts) { return {texts.begin(), texts.end()}; }

Mount::ServerOptions serverOptions(Options const& options, ConnectionOptions const& where) {
    if (options.rights.empty() && !options.writers.empty() && !options.writable)
        throw Failure(badUsage, "--writer says who may write if anybody may: give --writable, too");
    if (!options.rights.empty() && (options.writable || !options.writers.empty()))
        throw Failure(
            badUsage, "--rights says who may write: leave --writable and --writer out, and give rules with write");
    Mount::ServerOptions server;
    server.source.mayWrite = options.writable;
    server.peer.users = server.peer.names = strings(options.users);
    server.peer.tls = tlsFilesFrom(where);
    server.writers = strings(options.writers);
    if (!options.rights.empty()) server.rights = readRights(options.rights);
    server.history = changesKept;
    if (options.rights.empty()) server.lastChanges = lastChangesKept;
    return server;
}

// Makes SIGINT, SIGTERM and SIGHUP end the loop instead of the process, so that the server removes its socket. If
// SIGHUP is ignored, as under nohup, it stays ignored.
class Signals {
public:
    Signals() {
        ::sigemptyset(&set_);
        ::sigaddset(&set_, SIGINT);
        ::sigaddset(&set_, SIGTERM);
        struct sigaction hangUp {};
        if (::sigaction(SIGHUP, nullptr, &hangUp) == 0 && hangUp.sa_handler != SIG_IGN) ::sigaddset(&set_, SIGHUP);
        ::pthread_sigmask(SIG_BLOCK, &set_, nullptr);
    }
    void end(Mount::Loop& loop) {
        std::thread([&loop, set = set_] {
            int signal = 0;
            while (::sigwait(&set, &signal) != 0) {}
            loop.post([&loop] { loop.stop(); });
        }).detach();  // the thread waits for signals until the process ends
    }

private:
    sigset_t set_;
};

class ServeCommand final : public LiveCommand {
public:
    explicit ServeCommand(CLI::App& app)
        : LiveCommand(app, "serve", "Serve a tree of entities to other processes", help) {
        argument("STATE-FILE", options_.state, "What there is; - for standard input; default: nothing");
        options(
            "--trie", options_.tries, "PATH=FILE", "Serve a trie, from a file of prefixes; may be given several times");
        flag("--writable", options_.writable, "Let others change values");
        options("--user", options_.users, "NAME", "Who may connect, by name or number; may be given several times");
        options("--writer", options_.writers, "NAME", "Who may change values; default: all who may connect");
        option("--rights", options_.rights, "FILE", "Who may read, change and call what, in place of --writable");
    }

    int run() override {  // ends at SIGINT, SIGTERM or SIGHUP
        Mount::Address const address = addressFrom(where_.address);
        Mount::ServerOptions const how = serverOptions(options_, where_);
        Ptr<Entity> root = rootFrom(options_.state);
        for (std::string const& trie : options_.tries) addTrie(root, trie);
        Signals signals;
        static Mount::Loop loop;  // static, since the thread that waits for signals may use it until the process ends
        try {
            Mount::Server server(loop, root, how);
            Mount::Address const listening = server.listen(address);
            signals.end(loop);
            if (!wasOutputClosed()) print("serving " + cleaned(listening.text().view()) + "\n");
            loop.run();
        } catch (Vel::RangeException const& error) {
            throw Failure(badUsage, cleaned(error.text().view()));
        } catch (Vel::Exception const& error) {
            throw Failure(somethingWrong, cleaned(error.text().view()));
        }
        return fine;
    }

private:
    Options options_;
};

}  // namespace

std::unique_ptr<Command> makeServe(CLI::App& app) { return std::make_unique<ServeCommand>(app); }

}  // namespace Tool
