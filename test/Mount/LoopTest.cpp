#define ASIO_STANDALONE
#define ASIO_NO_DEPRECATED  // as the library has them

#include "MountFixture.h"

#include <asio/io_context.hpp>

#include "Vel/base/Exception.h"

#include <atomic>
#include <csignal>
#include <thread>

namespace {

using namespace MountTest;

TEST(LoopTest, RunEndsWhenNothingIsLeft) {
    Loop loop;
    std::vector<int> called;
    loop.post([&] {
        called.push_back(1);
        loop.post([&] { called.push_back(2); });
    });
    loop.run();
    EXPECT_EQ(called, (std::vector<int>{1, 2}));
}

TEST(LoopTest, AStoppedLoopGoesOnAtTheNextRun) {
    Loop loop;
    std::vector<int> called;
    loop.post([&] {
        called.push_back(1);
        loop.stop();
    });
    loop.post([&] { called.push_back(2); });
    EXPECT_FALSE(loop.runFor(enough));
    EXPECT_EQ(called, (std::vector<int>{1}));
    loop.poll();
    EXPECT_EQ(called, (std::vector<int>{1, 2}));
}

TEST(LoopTest, RunUntilAsksAfterEverythingThatHappens) {
    Loop loop;
    int calls = 0;
    for (int i = 0; i < 5; ++i) loop.post([&] { ++calls; });
    EXPECT_TRUE(loop.runUntil([&] { return calls == 3; }, enough));
    EXPECT_EQ(calls, 3);
}

TEST(LoopTest, RunUntilAsksOnceMoreAtTheEnd) {
    Loop loop;
    auto const end = std::chrono::steady_clock::now() + 2ms;
    EXPECT_TRUE(loop.runUntil([&] { return std::chrono::steady_clock::now() >= end; }, 2ms));
}

TEST(LoopTest, RunUntilRunsNothingWhenItIsSoAlready) {
    Loop loop;
    bool isCalled = false;
    loop.post([&] { isCalled = true; });
    EXPECT_TRUE(loop.runUntil([] { return true; }, 0s));
    EXPECT_FALSE(isCalled);
}

TEST(LoopTest, RunUntilIsFalseWhenTheTimeIsOverOrTheLoopIsStopped) {
    Loop loop;
    EXPECT_FALSE(loop.runUntil([] { return false; }, 1ms));
    loop.post([&] { loop.stop(); });
    EXPECT_FALSE(loop.runUntil([] { return false; }, enough));
}

TEST(LoopTest, RunForRunsWhatIsThere) {
    Loop loop;
    int calls = 0;
    loop.post([&] { ++calls; });
    EXPECT_TRUE(loop.runFor(2ms));
    EXPECT_EQ(calls, 1);
}

// What a handler has posted before it runs the loop from within is not left for after it.
TEST(LoopTest, ARunWithinAHandlerDoesWhatTheHandlerHasPosted) {
    Loop loop;
    std::vector<std::string> done;
    loop.post([&] {
        bool isCalled = false;
        loop.post([&] { isCalled = true; });
        if (loop.runUntil([&] { return isCalled; }, 10s)) done.push_back("runUntil");
        isCalled = false;
        loop.post([&] { isCalled = true; });
        loop.poll();
        if (isCalled) done.push_back("poll");
        isCalled = false;
        loop.post([&] { isCalled = true; });
        loop.runFor(1ms);
        if (isCalled) done.push_back("runFor");
    });
    loop.run();
    EXPECT_EQ(done, (std::vector<std::string>{"runUntil", "poll", "runFor"}));
}

TEST(LoopTest, CallsFromOtherThreadsAreMadeByTheOneThatRuns) {
    Loop loop;
    std::vector<std::thread::id> callers;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
            for (int n = 0; n < 100; ++n) loop.post([&] { callers.push_back(std::this_thread::get_id()); });
        });
    EXPECT_TRUE(loop.runUntil([&] { return callers.size() == 400; }, enough));
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(callers, std::vector<std::thread::id>(400, std::this_thread::get_id()));
}

TEST(LoopTest, AnotherThreadMayStopIt) {
    Loop loop;
    std::atomic<bool> runs = false;
    loop.post([&] { runs = true; });
    std::thread thread([&] {
        while (!runs) std::this_thread::yield();
        loop.stop();
    });
    EXPECT_FALSE(loop.runFor(enough));
    thread.join();
}

// --- signals ---

TEST(LoopTest, ASignalIsACallOutOfTheLoopEachTimeThatItComes) {
    Loop loop;
    std::vector<int> calls;
    loop.onSignal(SIGUSR1, [&] { calls.push_back(1); });
    loop.onSignal(SIGUSR2, [&] { calls.push_back(2); });
    for (int const signal : {SIGUSR1, SIGUSR2, SIGUSR1}) {
        std::size_t const before = calls.size();
        ASSERT_EQ(::raise(signal), 0);
        EXPECT_EQ(calls.size(), before) << "the loop does not run";
        ASSERT_TRUE(loop.runUntil([&] { return calls.size() > before; }, enough));
    }
    EXPECT_EQ(calls, (std::vector<int>{1, 2, 1}));
}

TEST(LoopTest, ASignalThatCannotBeCaughtIsAnError) {
    Loop loop;
    try {
        loop.onSignal(SIGKILL, [] {});
        ADD_FAILURE();
    } catch (Vel::ErrnoException const& error) {
        EXPECT_EQ(error.text(), "signal 9: Invalid argument (EINVAL)");
    }
    loop.run();  // which awaits nothing
}

TEST(LoopTest, ALoopThatIsGoneAwaitsNoSignal) {
    asio::io_context context;
    int calls = 0;
    {
        Loop loop(context);
        loop.onSignal(SIGUSR1, [&] { ++calls; });
    }
    context.run();
    EXPECT_EQ(calls, 0);
}

class BorrowedLoopTest : public SharedTest {};

TEST_F(BorrowedLoopTest, AnApplicationRunsItsOwnContext) {
    asio::io_context context;
    Loop borrowed(context);
    EXPECT_EQ(&borrowed.context(), &context);
    generation(served, "g", 7);
    Server server(borrowed, served);
    server.listen(address());
    Client client(borrowed, address(), here, "copy");
    client.onStateIs([&](Client::State state) {
        if (state == Client::State::synced) context.stop();
    });
    context.run_for(enough);
    EXPECT_EQ(idAt("copy/g"), 7u);
}

TEST_F(BorrowedLoopTest, ChangesPostedFromAnotherThreadReachTheCopy) {
    auto const original = generation(served, "g", 1);
    Server server(loop, served);
    server.listen(address());
    Client client(loop, address(), here, "copy");
    std::thread thread([&] {
        for (U32 id = 2; id <= 200; ++id)
            loop.post([original = original.get(), id] { original->generationIs({id, true}); });
    });
    EXPECT_TRUE(until([&] { return idAt("copy/g") == 200; })) << client.error();
    thread.join();
}

}  // namespace
