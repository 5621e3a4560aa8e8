#include "Mox/UniqueId.h"

#include "FakeSystem.h"
#include "RecordTest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace {

using Mox::UniqueId;
using Vel::AttributeOp;
using Vel::U16;
using Vel::U32;
using Vel::U64;

constexpr U64 allOnes = 18446744073709551615ul;
constexpr char allOnesText[] = "Value('Mox::UniqueId', ** {'timestamp': 4294967295, 'pid': 65535, 'count': 65535})";

// A process whose last id had time stamp 0 and number 0, under a clock of the test's making.
class UniqueIdMintTest : public testing::Test {
protected:
    UniqueIdMintTest() {
        world.time = 4294967295.0;
        unsigned minted = 0;  // until the time stamps start over
        while (UniqueId::generateUniqueId().timestamp() != 0 && minted < 2 * 65536) ++minted;
        EXPECT_LE(minted, 65536u);
        world.time = 1700000000.125;
    }

    // The next id that is minted, as its short text; uses it up.
    static std::string next() { return UniqueId().toStrep().stdString(); }
    static void mint(unsigned times) {
        for (unsigned i = 0; i < times; ++i) UniqueId::generateUniqueId();
    }

    FakeSystem world;
};

// --- the rule ---

TEST_F(UniqueIdMintTest, IdsOfOneSecondAreNumbered) {
    EXPECT_EQ(next(), "timestamp 1700000000, pid 4711, count 0");
    world.time = 1700000000.999;
    EXPECT_EQ(next(), "timestamp 1700000000, pid 4711, count 1");
    EXPECT_EQ(next(), "timestamp 1700000000, pid 4711, count 2");
}

TEST_F(UniqueIdMintTest, NextSecondStartsAtZeroAgain) {
    mint(3);
    world.time = 1700000001.0;
    EXPECT_EQ(next(), "timestamp 1700000001, pid 4711, count 0");
    EXPECT_EQ(next(), "timestamp 1700000001, pid 4711, count 1");
}

TEST_F(UniqueIdMintTest, ClockThatGoesBackKeepsTheLastTimestamp) {
    mint(1);
    world.time = 1600000000.0;
    EXPECT_EQ(next(), "timestamp 1700000000, pid 4711, count 1");
    world.time = 0;
    EXPECT_EQ(next(), "timestamp 1700000000, pid 4711, count 2");
    world.time = 1700000000.0;
    EXPECT_EQ(next(), "timestamp 1700000000, pid 4711, count 3");
    world.time = 1700000001.0;
    EXPECT_EQ(next(), "timestamp 1700000001, pid 4711, count 0");
}

TEST_F(UniqueIdMintTest, UsedUpSecondRunsAheadOfTheClock) {
    mint(65535);
    EXPECT_EQ(next(), "timestamp 1700000000, pid 4711, count 65535");
    EXPECT_EQ(next(), "timestamp 1700000001, pid 4711, count 0");
    world.time = 1700000001.0;  // where the ids are already
    EXPECT_EQ(next(), "timestamp 1700000001, pid 4711, count 1");
    world.time = 1700000002.0;
    EXPECT_EQ(next(), "timestamp 1700000002, pid 4711, count 0");
}

TEST_F(UniqueIdMintTest, ClockThatStandsRunsAheadAgainAndAgain) {
    UniqueId last = UniqueId::generateUniqueId();
    for (unsigned i = 1; i < 3 * 65536; ++i) {
        UniqueId const id;
        ASSERT_TRUE(last < id) << i;
        last = id;
    }
    EXPECT_EQ(last.toStrep(), "timestamp 1700000002, pid 4711, count 65535");
}

TEST_F(UniqueIdMintTest, IdsAscendWhateverTheClockDoes) {
    UniqueId last(0, 0, 0);
    for (double const time : {1700000000.0, 5.0, 1700000000.9, 1700000007.0, 1699999999.0, 1700000006.0, 1700000008.5})
        for (int i = 0; i < 20000; ++i) {
            world.time = time;
            UniqueId const id;
            ASSERT_TRUE(last < id) << last << " " << id;
            last = id;
        }
}

TEST_F(UniqueIdMintTest, TimestampIsTheLow32BitsOfTheWholeSeconds) {
    world.time = 3000000000.999;  // beyond a signed number
    EXPECT_EQ(next(), "timestamp 3000000000, pid 4711, count 0");
    world.time = 4294967296.0 + 3000000001.5;
    EXPECT_EQ(next(), "timestamp 3000000001, pid 4711, count 0");
    world.time = -1.5;  // truncated to -1
    EXPECT_EQ(next(), "timestamp 4294967295, pid 4711, count 0");
}

TEST_F(UniqueIdMintTest, TimestampsStartOverBehindTheLast) {
    world.time = 4294967295.0;
    mint(65535);
    EXPECT_EQ(next(), "timestamp 4294967295, pid 4711, count 65535");
    world.time = 0;
    EXPECT_EQ(next(), "timestamp 0, pid 4711, count 0");
    EXPECT_EQ(next(), "timestamp 0, pid 4711, count 1");
}

TEST_F(UniqueIdMintTest, PidIsTheLow16BitsOfTheProcessId) {
    world.processId = 0x12345;
    EXPECT_EQ(UniqueId().pid(), 0x2345);
    world.processId = 65536;
    EXPECT_EQ(UniqueId().pid(), 0);
}

TEST(UniqueIdMintDeathTest, ProcessStartsWithTimestampAndNumberZero) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process of its own from its start
    auto const first = [] {
        FakeSystem world;
        world.time = 0;
        std::fputs(UniqueId().toStrep().charPtr(), stderr);  // the clock is not beyond the last time stamp
        std::_Exit(0);
    };
    EXPECT_EXIT(first(), testing::ExitedWithCode(0), "^timestamp 0, pid 4711, count 1$");
}

// --- what mints ---

TEST_F(UniqueIdMintTest, EveryConstructionFromOutsideReplacesAllOnes) {
    EXPECT_EQ(UniqueId().count(), 0);
    EXPECT_EQ(UniqueId::generateUniqueId().count(), 1);
    EXPECT_EQ(UniqueId(4294967295u, 65535, 65535).count(), 2);
    EXPECT_EQ(UniqueId::uniqueIdIs(allOnes).count(), 3);
    EXPECT_EQ(Vel::strepToValue<UniqueId>(allOnesText, nullptr).count(), 4);
    auto const checked = Vel::checkedStrepToValue<UniqueId>(allOnesText);
    ASSERT_TRUE(checked);
    EXPECT_EQ(checked->toStrep(), "timestamp 1700000000, pid 4711, count 5");
}

TEST_F(UniqueIdMintTest, ReadingFromTheAttributeLogKeepsAllOnes) {
    EXPECT_EQ(readFrom<UniqueId>("ffffffffffffffff").val(), allOnes);
    auto const bytes = bytesOf("ffffffffffffffff");
    auto const checked = Vel::checkedRead<UniqueId>(bytes);
    ASSERT_TRUE(checked);
    EXPECT_EQ(checked->val(), allOnes);
    EXPECT_EQ(textOf(*checked), allOnesText);
    EXPECT_EQ(writtenHex(*checked), "ffffffffffffffff");
    EXPECT_EQ(UniqueId().count(), 0);  // the first
}

TEST_F(UniqueIdMintTest, NothingButAllOnesIsReplaced) {
    for (U64 const packed : {allOnes - 1, allOnes - 0x10000, allOnes - 0x100000000ul, U64(0), U64(0xFFFFFFFF)})
        EXPECT_EQ(UniqueId::uniqueIdIs(packed).val(), packed);
    UniqueId id(1, 2, 3);
    id.doInit();
    EXPECT_EQ(id, UniqueId(1, 2, 3));
    EXPECT_EQ(UniqueId().count(), 0);  // the first
}

TEST_F(UniqueIdMintTest, DoInitMintsOnceForAllOnes) {
    auto id = readFrom<UniqueId>("ffffffffffffffff");
    id.doInit();
    EXPECT_EQ(id.toStrep(), "timestamp 1700000000, pid 4711, count 0");
    id.doInit();
    EXPECT_EQ(id.count(), 0);
    EXPECT_EQ(UniqueId().count(), 1);
}

TEST_F(UniqueIdMintTest, CopiesAndComparisonsMintNothing) {
    UniqueId const a;
    UniqueId const b = a;
    UniqueId c(1, 2, 3);
    c = a;
    EXPECT_EQ(b, c);
    EXPECT_FALSE(a < b);
    EXPECT_EQ(a.val(), UniqueId::uniqueIdIs(a.val()).val());
    EXPECT_EQ(UniqueId().count(), 1);
}

TEST_F(UniqueIdMintTest, FailedParseMintsNothing) {
    EXPECT_THROW(Vel::strepToValue<UniqueId>("Value('Mox::UniqueId', ** {'timestamp': 4294967295, ", nullptr),
        Vel::ParseException);
    EXPECT_EQ(UniqueId().count(), 0);
}

// --- by reflection ---

TEST_F(UniqueIdMintTest, TruthTestIsTrueAndUsesAnIdUp) {
    UniqueId const a(0, 0, 0);
    EXPECT_TRUE(truthOf(a));
    EXPECT_TRUE(truthOf(a));
    EXPECT_EQ(UniqueId().count(), 2);
}

TEST_F(UniqueIdMintTest, TruthTestOfTheIdThatComesNextIsFalse) {
    EXPECT_FALSE(truthOf(UniqueId(1700000000, 4711, 0)));
    EXPECT_TRUE(truthOf(UniqueId(1700000000, 4711, 0)));
    EXPECT_FALSE(truthOf(UniqueId(1700000000, 4711, 2)));
}

TEST_F(UniqueIdMintTest, EqualityAndOrderUseNoIdUp) {
    UniqueId const a(1, 2, 3);
    EXPECT_TRUE(equalByReflection(a, a));
    EXPECT_FALSE(lessByReflection(a, a));
    EXPECT_EQ(UniqueId().count(), 0);
}

TEST_F(UniqueIdMintTest, MethodsMint) {
    UniqueId object = readFrom<UniqueId>("ffffffffffffffff");
    UniqueId result(1, 2, 3);
    EXPECT_EQ(callOp(object, 6, nullptr), 0);
    EXPECT_EQ(object.toStrep(), "timestamp 1700000000, pid 4711, count 0");
    EXPECT_EQ(callOp(object, 6, nullptr), 0);
    EXPECT_EQ(object.count(), 0);
    EXPECT_EQ(callOp(object, 8, &result), 0);
    EXPECT_EQ(result.toStrep(), "timestamp 1700000000, pid 4711, count 1");
    EXPECT_EQ(callOp(object, 9, &result, allOnes), 0);
    EXPECT_EQ(result.toStrep(), "timestamp 1700000000, pid 4711, count 2");
    EXPECT_EQ(object.count(), 0);
}

TEST_F(UniqueIdMintTest, ConstructionByReflectionReplacesAllOnes) {
    auto const& glue = Vel::typeOf<UniqueId>().glue();
    alignas(UniqueId) unsigned char storage[sizeof(UniqueId)];
    auto const constructed = [&] { return *std::launder(reinterpret_cast<UniqueId*>(storage)); };
    glue.genericIfConstruct(storage, nullptr);
    EXPECT_EQ(constructed().toStrep(), "timestamp 1700000000, pid 4711, count 0");
    U32 const timestamp = 4294967295u;
    U16 const ones = 65535;
    void const* const arguments[] = {&timestamp, &ones, &ones};
    glue.genericIfConstructFromCtorArgs(storage, arguments);
    EXPECT_EQ(constructed().count(), 1);
    glue.genericIfStrepToValue(storage, allOnesText, Vel::typeOf<UniqueId>());
    EXPECT_EQ(constructed().count(), 2);
    auto const bytes = bytesOf("ffffffffffffffff");
    Vel::NboAttrLog::In in(bytes);
    glue.read(storage, in);
    EXPECT_EQ(constructed().val(), allOnes);
    glue.genericIfConstruct(storage, std::launder(reinterpret_cast<UniqueId*>(storage)));  // a copy
    EXPECT_EQ(constructed().val(), allOnes);
}

// --- processes and threads ---

TEST(UniqueIdProcessTest, ForkedChildMintsUnderItsOwnProcessId) {
    UniqueId const before;  // the process id is asked for here
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    pid_t const child = ::fork();
    if (child == 0) {
        U64 const val = UniqueId().val();
        ::_exit(::write(ends[1], &val, sizeof val) == sizeof val ? 0 : 1);
    }
    ASSERT_GT(child, 0);
    U64 val = 0;
    EXPECT_EQ(::read(ends[0], &val, sizeof val), ssize_t(sizeof val));
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    ::close(ends[0]);
    ::close(ends[1]);
    EXPECT_EQ(UniqueId::uniqueIdIs(val).pid(), static_cast<U16>(child));
    EXPECT_EQ(before.pid(), static_cast<U16>(::getpid()));
    EXPECT_NE(UniqueId().val(), val);
    EXPECT_EQ(UniqueId().pid(), before.pid());
}

TEST(UniqueIdProcessTest, TimestampIsNotBehindTheRealClockByMoreThanATick) {
    constexpr double tick = 0.010;  // seconds; of the slowest kernel
    auto const before = static_cast<U32>(static_cast<std::int64_t>(Vel::System::currentTime() - tick));
    EXPECT_GE(UniqueId().timestamp(), before);
}

TEST(UniqueIdThreadTest, ThreadsThatTakeTurnsGetDistinctIds) {
    constexpr unsigned threads = 4;
    constexpr unsigned each = 30000;  // together more than a second holds
    std::mutex turn;
    std::vector<std::vector<U64>> minted(threads);
    std::vector<std::thread> running;
    for (auto& mine : minted)
        running.emplace_back([&turn, &mine] {
            for (unsigned i = 0; i < each; ++i) {
                std::lock_guard const lock(turn);
                mine.push_back(UniqueId().val());
            }
        });
    for (auto& thread : running) thread.join();
    std::vector<U64> all;
    for (auto const& mine : minted) {
        EXPECT_TRUE(std::is_sorted(mine.begin(), mine.end()));
        all.insert(all.end(), mine.begin(), mine.end());
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(all.size(), threads * each);
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
}

}  // namespace
