#include "MountFixture.h"

#include "../Mox/SimulationWorld.h"
#include "Vel/base/Exception.h"

#include <deque>

// Processes that are killed at any moment and begin again: a source, copies of it, and a copy of a copy.
namespace {

using namespace MountTest;
using Simulation::Random;
using Simulation::World;

unsigned long setting(char const* name, unsigned long otherwise) {
    char const* const value = std::getenv(name);
    return value ? std::strtoul(value, nullptr, 10) : otherwise;
}

// What a process is asked, in one letter: (s)top changing, (g)o on, (t)ree. It answers by the size and the text.
void answer(int socket, std::string const& text) {
    say(socket, std::to_string(text.size()) + "\n");
    say(socket, text);
}

std::string ask(Child const& child, char what) {
    say(child.socket(), std::string_view(&what, 1));
    std::string size;
    char c = 0;
    while (::read(child.socket(), &c, 1) == 1 && c != '\n') size += c;
    if (size.empty()) return "no answer";
    std::string text(std::stoul(size), '\0');
    std::size_t have = 0;
    while (have < text.size()) {
        ssize_t const got = ::read(child.socket(), text.data() + have, text.size() - have);
        if (got <= 0) return "half an answer";
        have += static_cast<std::size_t>(got);
    }
    return text;
}

// Answers what is asked, and runs the loop otherwise; `work` is done now and then.
void serveQuestions(
    int socket, Loop& loop, std::function<std::string(char)> const& answerTo, std::function<void()> const& work) {
    ::fcntl(socket, F_SETFL, O_NONBLOCK);
    for (;;) {
        char what = 0;
        ssize_t const got = ::read(socket, &what, 1);
        if (got == 0) return;
        if (got == 1) {
            std::string const text = answerTo(what);
            ::fcntl(socket, F_SETFL, 0);
            answer(socket, text);
            ::fcntl(socket, F_SETFL, O_NONBLOCK);
        }
        work();
        loop.runFor(500us);
    }
}

void beSource(int socket, Address const& address, U64 seed) {
    Random random(seed);
    World world(random);
    for (std::size_t n = random.below(100); n != 0; --n) world.change();
    Loop loop;
    Server::Options options;
    options.source.logSize = random.oneIn(2) ? 0 : 1u << 20;
    options.statusInterval = 5ms;
    Server server(loop, world.root(), options);
    server.listen(address);
    bool changes = true;
    serveQuestions(
        socket, loop,
        [&](char what) {
            if (what == 's') changes = false;
            if (what == 'g') changes = true;
            return StreamTest::treeOf(*world.root());
        },
        [&] {
            for (std::size_t n = changes ? random.below(30) : 0; n != 0; --n) world.change();
        });
}

// A copy, which is served on at `own`.
void beReplica(int socket, Address const& source, String const& path, Address const& own) {
    Loop loop;
    auto const place = Dir::newEntity("place");
    Client::Options options;
    options.path = path;
    options.firstDelay = 2ms;
    options.lastDelay = 20ms;
    Client client(loop, source, place, "world", options);
    Server::Options serving;
    serving.statusInterval = 5ms;
    Server server(loop, place, serving);
    server.listen(own);
    serveQuestions(
        socket, loop,
        [&](char) {
            auto const root = client.replica().root();
            return root ? StreamTest::treeOf(*root) : std::string("nothing; ") + client.error().stdString();
        },
        [] {});
}

class KilledProcessesTest : public SharedTest {
protected:
    std::unique_ptr<Child> started(std::size_t which) {
        U64 const seed = random.next();
        Address const source = address("source");
        if (which == 0) return std::make_unique<Child>([=](int socket) { beSource(socket, source, seed); });
        bool const isLast = which == 3;  // mounts the copy of 1
        Address const own = address("replica" + std::to_string(which));
        Address const from = isLast ? address("replica1") : source;
        String const path = isLast ? "world" : "";
        return std::make_unique<Child>([=](int socket) { beReplica(socket, from, path, own); });
    }
    // The root's own name is where the copy stands.
    static std::string below(std::string const& tree) { return tree.substr(std::min(tree.size(), tree.find('\n'))); }

    void expectSameTrees(std::vector<std::unique_ptr<Child>> const& processes) {
        std::string const tree = below(ask(*processes[0], 's'));
        ASSERT_GT(tree.size(), 0u);
        for (std::size_t i = 1; i < processes.size(); ++i) {
            std::string copy;
            auto const end = std::chrono::steady_clock::now() + enough;
            do copy = below(ask(*processes[i], 't'));
            while (copy != tree && std::chrono::steady_clock::now() < end);
            ASSERT_EQ(copy, tree) << "replica " << i;
        }
        ask(*processes[0], 'g');
    }

    unsigned long const seed = setting("MOX_KILL_SEED", static_cast<unsigned long>(::getpid()) * 2654435761ul);
    Random random{seed};
};

TEST_F(KilledProcessesTest, CopiesAreEqualToTheSourceInTheEnd) {
    unsigned long const rounds = setting("MOX_KILL_ROUNDS", 40);
    std::printf("MOX_KILL_SEED=%lu MOX_KILL_ROUNDS=%lu\n", seed, rounds);
    std::vector<std::unique_ptr<Child>> processes;
    for (std::size_t i = 0; i < 4; ++i) processes.push_back(started(i));
    for (unsigned long round = 1; round <= rounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        ::usleep(static_cast<useconds_t>(random.below(20'000)));
        std::size_t const victim = random.below(processes.size());
        if (random.oneIn(4)) {  // falls behind instead
            processes[victim]->signal(SIGSTOP);
            ::usleep(static_cast<useconds_t>(random.below(20'000)));
            processes[victim]->signal(SIGCONT);
        } else {
            processes[victim]->kill();
            if (random.oneIn(2)) ::usleep(static_cast<useconds_t>(random.below(20'000)));
            processes[victim] = started(victim);
        }
        if (round % 8 != 0 && round != rounds) continue;
        ASSERT_NO_FATAL_FAILURE(expectSameTrees(processes));
    }
}

// --- many servers at one place ---

// Waits for a byte, tries to serve, and says how that went; serves until it is killed.
void beRival(int socket, Address const& address) {
    char go = 0;
    if (::read(socket, &go, 1) != 1) return;
    Loop loop;
    Server server(loop, Dir::newEntity("served"));
    try {
        server.listen(address);
    } catch (Vel::ErrnoException const& error) {
        return say(socket, error.error() == EADDRINUSE ? "n" : "?");
    }
    say(socket, "y");
    loop.run();
}

// The process that listens at the address; -1: none.
pid_t listenerAt(Address const& address) {
    RawPeer const peer(address);
    ucred credentials{};
    socklen_t size = sizeof credentials;
    bool const knows = ::getsockopt(peer.socket(), SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0;
    return peer.isConnected() && knows ? credentials.pid : -1;
}

// Serves so many times, and leaves in good order. Says whether another took its place meanwhile.
void beGuest(int socket, Address const& address, unsigned long times) {
    while (times != 0) {
        Loop loop;
        Server server(loop, Dir::newEntity("served"));
        try {
            server.listen(address);
        } catch (Vel::ErrnoException const& error) {
            if (error.error() == EADDRINUSE) continue;
            return say(socket, error.what());
        }
        --times;
        for (int i = 0; i < 3; ++i)
            if (listenerAt(address) != ::getpid()) return say(socket, "another took the place");
    }
    say(socket, "served");
}

class RivalsTest : public SharedTest {};

TEST_F(RivalsTest, OfManyServersThatStartAtOnceOneServesAndTheOthersSaySo) {
    unsigned long const rounds = setting("MOX_RIVAL_ROUNDS", 60);
    for (unsigned long round = 0; round < rounds; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        std::vector<std::unique_ptr<Child>> rivals;
        for (int i = 0; i < 6; ++i)
            rivals.push_back(std::make_unique<Child>([this](int socket) { beRival(socket, address()); }));
        for (auto const& rival : rivals) say(rival->socket(), "g");
        pid_t serving = -1;
        for (auto const& rival : rivals) {
            char answer = 0;
            ASSERT_EQ(::read(rival->socket(), &answer, 1), 1);
            if (answer == 'n') continue;
            ASSERT_EQ(answer, 'y');
            ASSERT_EQ(serving, -1) << "two say that they serve";
            serving = rival->id();
        }
        ASSERT_NE(serving, -1) << "nobody serves";
        ASSERT_EQ(listenerAt(address()), serving);
        // All are killed, and what they leave behind is in the way of the next ones, or not.
    }
}

TEST_F(RivalsTest, ServersThatComeAndGoTakeNobodysPlace) {
    unsigned long const times = setting("MOX_RIVAL_TIMES", 200);
    std::vector<std::unique_ptr<Child>> guests;
    for (int i = 0; i < 6; ++i)
        guests.push_back(std::make_unique<Child>([&](int socket) { beGuest(socket, address(), times); }));
    for (auto const& guest : guests) EXPECT_EQ(guest->said(), "served");
}

}  // namespace
