#include "FixtureTable.h"
#include "Vel/base/Ptr.h"
#include "Vel/base/TableHash.h"
#include "Vel/describe/Module.h"
#include "Vel/text/Trace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

// What may be called from any thread: the registry, tracing, the tracking of allocations, the secret of tables. Most of
// what these tests can find only the thread sanitizer sees.
namespace {

using FixtureTables::Table;
using Vel::AllocTrackTypeInfo;
using Vel::Registry;
using Vel::Trace;
using Vel::TraceHandle;
using Vel::U64;

// Runs `work` over and over on a thread of its own until `meanwhile` is done.
void beside(std::function<void()> const& work, std::function<void()> const& meanwhile) {
    std::atomic<bool> done = false;
    std::jthread const thread([&] {
        while (!done) work();
    });
    meanwhile();
    done = true;
}

// A library that comes and goes. What stands where its table was is somebody else's then.
void loadAndUnload(std::function<void()> const& meanwhile) {
    Table table;
    table.renamedTo('G');
    Vel::velModuleIs(&table.header());
    meanwhile();
    Vel::velModuleDel(&table.header());
    table.header().typeCount += 1000;
}

TEST(RegistryThreadsTest, TypesAreListedWhileModulesComeAndGo) {
    std::size_t const others = Registry::types().size();
    std::size_t const fixtures = FixtureTables::fixtures().typeCount;
    std::atomic<unsigned> listings = 0;  // relaxed, so that they order nothing
    auto const untilListed = [&] {
        unsigned const before = listings.load(std::memory_order_relaxed);
        while (listings.load(std::memory_order_relaxed) - before < 2) std::this_thread::yield();
    };
    beside(
        [&] {
            std::size_t const count = Registry::types().size();
            EXPECT_TRUE(count == others || count == others + fixtures) << count;
            listings.fetch_add(1, std::memory_order_relaxed);
            std::this_thread::yield();
        },
        [&] {
            for (int i = 0; i < 200; ++i) loadAndUnload(untilListed);
        });
    EXPECT_EQ(Registry::types().size(), others);
}

TEST(RegistryThreadsTest, ModulesMayBeAskedForFromSeveralThreadsAsTheyComeAndGo) {
    std::size_t const modules = Registry::modules().size();
    auto const ask = [&] {
        std::size_t const count = Registry::modules().size();
        EXPECT_TRUE(count == modules || count == modules + 1) << count;
        EXPECT_TRUE(Registry::refusals().empty());
        std::this_thread::yield();
    };
    auto const comeAndGo = [] {
        for (int i = 0; i < 200; ++i) loadAndUnload([] { EXPECT_TRUE(Registry::type("Gixture::Tally")); });
    };
    beside(ask, [&] { beside([] { EXPECT_TRUE(Registry::type("Fixture::Tally")); }, comeAndGo); });
    EXPECT_EQ(Registry::modules().size(), modules);
}

// Takes records while it lives.
class Sink {
public:
    Sink() { attach(); }
    Sink(Sink const&) = delete;
    Sink& operator=(Sink const&) = delete;
    ~Sink() {
        Trace::sinkIs(nullptr);
        Trace::levelsIs("");
    }
    void attach() {
        Trace::sinkIs([this](Vel::TraceRecord const& record) { records_ += record.text == "text"; });
    }
    unsigned records() const { return records_; }

private:
    std::atomic<unsigned> records_ = 0;
};

void trace(TraceHandle& handle) {
    if (handle.enabled(0)) Vel::TraceHelper(handle, 0, "file", 1, "f").stream() << "text";
}

TEST(TraceThreadsTest, RecordsOfSeveralThreadsAllArrive) {
    Sink const sink;
    Trace::levelsIs("*/0");
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([] {
                TraceHandle own("Own");
                for (int n = 0; n < 500; ++n) trace(own);
            });
    }
    EXPECT_EQ(sink.records(), 2000u);
}

TEST(TraceThreadsTest, LevelsAndSinksChangeWhileThreadsTrace) {
    TraceHandle shared("Shared");
    Sink sink;
    auto const work = [&] {
        trace(shared);
        TraceHandle passing("Passing");
        trace(passing);
    };
    beside(work, [&] {
        for (int i = 0; i < 2000 || sink.records() == 0; ++i) {
            Trace::levelsIs(i % 2 ? "*/0" : "");
            if (i % 100 == 0) Trace::sinkIs([](Vel::TraceRecord const&) {});
            if (i % 100 == 50) sink.attach();
        }
    });
    Trace::levelsIs("");
    EXPECT_FALSE(shared.enabled(0));
}

TEST(AllocTrackThreadsTest, CountsOfSeveralThreadsAddUp) {
    static std::array<AllocTrackTypeInfo, 3> infos{AllocTrackTypeInfo("ThreadsTest::A"),
        AllocTrackTypeInfo("ThreadsTest::B"), AllocTrackTypeInfo("ThreadsTest::C")};
    std::vector<std::string> seen;
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([] {
                for (int n = 0; n < 1000; ++n)
                    for (auto& info : infos) {
                        info._trackAllocation(24, 8);
                        if (n % 2) info.trackDeallocation(24, 8);
                    }
            });
        for (int i = 0; i < 100; ++i)
            AllocTrackTypeInfo::visitAll([](AllocTrackTypeInfo const& info) { ASSERT_NE(info.typeName(), nullptr); });
    }
    AllocTrackTypeInfo::visitAll([&](AllocTrackTypeInfo const& info) { seen.emplace_back(info.typeName()); });
    for (auto const& info : infos) {
        EXPECT_EQ(info.live(), 2000u);
        EXPECT_EQ(info.liveBytes(), 48000u);
        EXPECT_EQ(info.allocations(), 4000u);
        EXPECT_EQ(std::ranges::count(seen, info.typeName()), 1) << info.typeName();
    }
}

TEST(ProcessSecretThreadsTest, ThreadsThatAskFirstGetTheSame) {
    using Vel::ProcessSecret;
    Vel::TableSecret const before = ProcessSecret::valueIs(Vel::TableSecret{});  // not drawn yet
    for (int round = 0; round < 100; ++round) {
        std::array<Vel::TableSecret, 3> got = {};
        {
            std::vector<std::jthread> threads;
            for (auto& secret : got) threads.emplace_back([&] { secret = ProcessSecret::value(); });
        }
        ASSERT_EQ(got[0], ProcessSecret::value());
        ASSERT_EQ(got[1], got[0]);
        ASSERT_EQ(got[2], got[0]);
        ProcessSecret::valueIs(Vel::TableSecret{});
    }
    ProcessSecret::valueIs(before);
}

}  // namespace
