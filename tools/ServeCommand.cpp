#include "tools/Commands.h"
#include "tools/Connection.h"
#include "tools/Input.h"
#include "tools/StateFile.h"
#include "tools/TrieFile.h"

#include "Mount/Server.h"

#include "Vel/Exception.h"

#include <csignal>
#include <thread>

namespace Tool {

namespace {

using Vel::Dir;
using Vel::Entity;
using Vel::Ptr;

Ptr<Entity> rootFrom(std::string const& file) {
    if (file.empty()) return Dir::newEntity("");
    Input input(file);
    std::string text;
    char buffer[65536];
    while (std::size_t const n = input.read(buffer, sizeof buffer)) text.append(buffer, n);
    try {
        return entitiesFromState(text);
    } catch (StateMistake const& mistake) {
        throw Failure(badUsage, input.name() + ":" + std::to_string(mistake.line) + ":" +
                                    std::to_string(mistake.offset + 1) + ": " + mistake.text + "\n" +
                                    caretBelow(mistake.lineText, mistake.offset));
    }
}

// A trie from a file of prefixes, at a path below directories.
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
        throw Failure(badUsage, "--trie " + shown(path) + ": " + error.what());
    }
}

std::vector<Vel::String> strings(std::vector<std::string> const& texts) { return {texts.begin(), texts.end()}; }

Mount::ServerOptions serverOptions(ServeOptions const& options) {
    if (!options.writers.empty() && !options.writable)
        throw Failure(badUsage, "--writer says who may write if anybody may: give --writable, too");
    Mount::ServerOptions server;
    server.source.mayWrite = options.writable;
    server.peer.users = server.peer.names = strings(options.users);
    server.peer.tls = tlsFilesFrom(options);
    server.writers = strings(options.writers);
    return server;
}

// SIGINT and SIGTERM end the loop, and nothing else.
class Signals {
public:
    Signals() {
        ::sigemptyset(&set_);
        ::sigaddset(&set_, SIGINT);
        ::sigaddset(&set_, SIGTERM);
        ::pthread_sigmask(SIG_BLOCK, &set_, nullptr);
    }
    void end(Mount::Loop& loop) {
        std::thread([&loop, set = set_] {
            int signal = 0;
            while (::sigwait(&set, &signal) != 0) {}
            loop.post([&loop] { loop.stop(); });
        }).detach();  // waits until the process ends
    }

private:
    sigset_t set_;
};

}  // namespace

int runServe(ServeOptions const& options) {
    Mount::Address const address = addressFrom(options.address);
    Mount::ServerOptions const how = serverOptions(options);
    Ptr<Entity> root = rootFrom(options.state);
    for (std::string const& trie : options.tries) addTrie(root, trie);
    Signals signals;
    static Mount::Loop loop;  // the thread that waits for signals may still know it while the process ends
    try {
        Mount::Server server(loop, root, how);
        Mount::Address const listening = server.listen(address);
        signals.end(loop);
        print("serving " + listening.text().stdString() + "\n");
        loop.run();
    } catch (Vel::RangeException const& error) {
        throw Failure(badUsage, error.what());
    } catch (Vel::Exception const& error) {
        throw Failure(somethingWrong, error.what());
    }
    return fine;
}

}  // namespace Tool
