#include "tools/Commands.h"
#include "tools/lib/Clean.h"
#include "tools/lib/Complaints.h"
#include "tools/lib/Connection.h"
#include "tools/lib/Input.h"
#include "tools/lib/StandardFiles.h"
#include "tools/lib/StateFile.h"
#include "tools/lib/TrieFile.h"

#include "Mount/Server.h"

#include "Vel/Exception.h"

#include <csignal>
#include <optional>
#include <thread>

namespace Tool {

namespace {

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
        throw Failure(badUsage, "--trie " + shown(path) + ": " + cleaned(error.text().view()));
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

// SIGINT, SIGTERM and SIGHUP end the loop, and nothing else: what listens is to be taken away again. Who wants to go on
// without a terminal has SIGHUP ignored, as nohup does.
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
        if (!wasOutputClosed()) print("serving " + cleaned(listening.text().view()) + "\n");
        loop.run();
    } catch (Vel::RangeException const& error) {
        throw Failure(badUsage, cleaned(error.text().view()));
    } catch (Vel::Exception const& error) {
        throw Failure(somethingWrong, cleaned(error.text().view()));
    }
    return fine;
}

}  // namespace Tool
