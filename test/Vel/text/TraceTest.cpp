#include "Vel/text/Trace.h"

#include "Vel/base/Exception.h"
#include "Vel/base/System.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace {

using Vel::String;
using Vel::Trace;
using Vel::TraceHandle;
using Vel::TraceHelper;
using Vel::TraceRecord;
using namespace std::string_view_literals;

// A clock, a process id and an environment that stand still.
class FakeCalls : public Vel::SystemCalls {
public:
    char const* getenv(char const* name) override {
        auto const found = environment.find(name);
        return found == environment.end() ? nullptr : found->second.c_str();
    }
    pid_t getpid() override { return 4711; }
    double currentTime() override { return time; }

    std::map<std::string, std::string> environment;
    double time = 1700000000.123456;
};

std::string const expectedStart = "2023-11-14 22:13:20.123456 4711 ";

void trace(TraceHandle const& handle, unsigned level, std::string const& text) {
    TraceHelper(handle, level, "/src/Mox/Cell", 110, "void f(int)").stream() << text;
}

// The levels that are on, as digits.
std::string levelsOf(TraceHandle& handle) {
    std::string levels;
    for (unsigned level = 0; level < TraceHandle::levels; ++level)
        if (handle.enabled(level)) levels += std::to_string(level);
    return levels;
}

// Collects the lines of records under a fake clock; puts everything back afterwards.
class TraceTest : public testing::Test {
protected:
    TraceTest() {
        Vel::System::callsIs(&calls_);
        Trace::levelsIs("");
        Trace::sinkIs([this](TraceRecord const& record) { lines_.push_back(Trace::line(record)); });
    }
    ~TraceTest() override {
        Trace::sinkIs(nullptr);
        Trace::levelsIs("");
        Vel::System::callsIs(nullptr);
    }

    FakeCalls calls_;
    std::vector<std::string> lines_;
};

// --- levels ---

TEST_F(TraceTest, LevelsAreChosenByFacility) {
    TraceHandle cell("Cell");
    TraceHandle trie("PrefixTrie");
    TraceHandle other("Other");
    Trace::levelsIs("Cell/0,PrefixTrie/8-9");
    EXPECT_EQ(levelsOf(cell), "0");
    EXPECT_EQ(levelsOf(trie), "89");
    EXPECT_EQ(levelsOf(other), "");
}

TEST_F(TraceTest, LevelsAreADigitARangeOrAll) {
    TraceHandle handle("Cell");
    for (auto const& [specification, levels] : std::map<std::string, std::string>{{"Cell/0", "0"}, {"Cell/9", "9"},
             {"Cell/3-3", "3"}, {"Cell/0-9", "0123456789"}, {"Cell/2-5", "2345"}, {"Cell/*", "0123456789"},
             {"*/1", "1"}, {"*/*", "0123456789"}, {"Cell/1,*/3,Cell/7-8", "1378"}, {"Cell/1,Cell/1", "1"},
             {" Cell/4 , ,Other/1,", "4"}, {"", ""}, {" , ", ""}, {"Cel/1,Cell2/1,cell/1", ""}}) {
        Trace::levelsIs(specification);
        EXPECT_EQ(levelsOf(handle), levels) << specification;
    }
}

TEST_F(TraceTest, BadLevelsAreRefusedAndChangeNothing) {
    TraceHandle handle("Cell");
    Trace::levelsIs("Cell/4");
    for (std::string const bad : {"Cell", "Cell/", "/0", "/", "Cell/10", "Cell/a", "Cell/-1", "Cell/1-", "Cell/5-3",
             "Cell/1-10", "Cell/1-2-3", "Cell/+1", "Cell/ 1", "Cell/**", "Cell/0/1", "Cell/0;Other/1", "*"}) {
        try {
            Trace::levelsIs("*/*," + bad);
            ADD_FAILURE() << "accepted: " << bad;
        } catch (Vel::RangeException const& error) {
            EXPECT_EQ(
                error.text(), "trace levels \"" + bad +
                                  "\" are not of the form FACILITY/LEVELS, such as Cell/0, PrefixTrie/8-9 or */*");
        }
        EXPECT_EQ(levelsOf(handle), "4") << bad;
    }
}

TEST_F(TraceTest, AllHandlesOfAFacilityFollow) {
    TraceHandle first("Cell");
    TraceHandle second("Cell");
    Trace::levelsIs("Cell/1");
    EXPECT_EQ(levelsOf(first), "1");
    EXPECT_EQ(levelsOf(second), "1");
    Trace::levelsIs("Cell/2");
    TraceHandle third("Cell");
    EXPECT_EQ(levelsOf(first), "2");
    EXPECT_EQ(levelsOf(second), "2");
    EXPECT_EQ(levelsOf(third), "2");
}

TEST_F(TraceTest, AHandleThatGoesIsForgotten) {
    TraceHandle stays("Cell");
    {
        TraceHandle goes("Cell");
        EXPECT_EQ(levelsOf(goes), "");
        EXPECT_EQ(levelsOf(stays), "");
    }
    Trace::levelsIs("Cell/1");
    EXPECT_EQ(levelsOf(stays), "1");
}

TEST_F(TraceTest, DefaultsHoldWhereNothingIsSaid) {
    TraceHandle early("Cell", true);
    EXPECT_EQ(levelsOf(early), "0");
    Trace::levelsIs("Other/1");
    EXPECT_EQ(levelsOf(early), "");
    Trace::levelsIs("");
    TraceHandle late("Cell", true);
    EXPECT_EQ(levelsOf(early), "0");
    EXPECT_EQ(levelsOf(late), "0");
}

TEST_F(TraceTest, ADisabledLevelBuildsNothing) {
    TraceHandle handle("Cell");
    Trace::levelsIs("Cell/1");
    int built = 0;
    auto const text = [&] { return std::to_string(++built); };
    for (unsigned const level : {0u, 1u, 2u})
        if (handle.enabled(level)) TraceHelper(handle, level, "/src/Mox/Cell", 110, "f").stream() << text();
    EXPECT_EQ(built, 1);
    EXPECT_EQ(lines_, std::vector<std::string>{expectedStart + "Cell/1 /src/Mox/Cell:110 f 1\n"});
}

TEST_F(TraceTest, HandlesAreConfiguredOnceByManyThreads) {
    Trace::levelsIs("Cell/0");
    for (int round = 0; round < 100; ++round) {
        TraceHandle handle("Cell");
        std::vector<std::thread> threads;
        std::vector<std::string> levels(3);
        for (auto& result : levels) threads.emplace_back([&] { result = levelsOf(handle); });
        for (auto& thread : threads) thread.join();
        ASSERT_EQ(levels, (std::vector<std::string>{"0", "0", "0"}));
    }
}

// --- records ---

TEST_F(TraceTest, ARecordIsOneLine) {
    TraceHandle const handle("Cell");
    trace(handle, 3, "cell id 7");
    EXPECT_EQ(lines_, std::vector<std::string>{expectedStart + "Cell/3 /src/Mox/Cell:110 void f(int) cell id 7\n"});
}

TEST_F(TraceTest, TheStreamTakesTextsFlagsAndNumbers) {
    TraceHandle const handle("Cell");
    {
        TraceHelper helper(handle, 0, "file", 1, "f");
        helper.stream() << "a" << String("b") << std::string("c") << true << false << 4294967295u
                        << static_cast<char const*>(nullptr);
        EXPECT_EQ(helper.stream().text(), "abcTrueFalse4294967295(null)");
        EXPECT_TRUE(lines_.empty());
    }
    EXPECT_EQ(lines_, std::vector<std::string>{expectedStart + "Cell/0 file:1 f abcTrueFalse4294967295(null)\n"});
}

TEST_F(TraceTest, ControlBytesAndBackslashesAreEscaped) {
    TraceHandle const handle("Cell");
    trace(handle, 0, std::string("a\nb\0\r\t\x1b[1m\x7f\\'\xc3\xa9"sv));
    EXPECT_EQ(lines_, std::vector<std::string>{expectedStart + "Cell/0 /src/Mox/Cell:110 void f(int) "
                                                               R"(a\nb\x00\x0d\x09\x1b[1m\x7f\\')"
                                                               "\xc3\xa9\n"});
}

TEST_F(TraceTest, TimeIsRoundedToTheMicrosecond) {
    auto const timeOf = [](double time) { return Trace::line({time, 1, "F", 0, "file", 1, "f", ""}).substr(0, 26); };
    EXPECT_EQ(timeOf(0.0), "1970-01-01 00:00:00.000000");
    EXPECT_EQ(timeOf(0.9999996), "1970-01-01 00:00:01.000000");
    EXPECT_EQ(timeOf(1e-6), "1970-01-01 00:00:00.000001");
    EXPECT_EQ(timeOf(951782400.5), "2000-02-29 00:00:00.500000");
    EXPECT_EQ(timeOf(4102444799.999999), "2099-12-31 23:59:59.999999");
    for (unsigned i = 0; i < 1000; ++i)
        ASSERT_EQ(timeOf(1700000000 + i / 1e6).substr(20), Vel::format("%06u", i).view());
}

TEST_F(TraceTest, ABrokenClockDoesNotMatter) {
    constexpr double infinity = std::numeric_limits<double>::infinity();
    for (double const time : {-1.0, -1e300, 1e300, infinity, -infinity, std::numeric_limits<double>::quiet_NaN()})
        EXPECT_EQ(Trace::line({time, 1, "F", 0, "file", 1, "f", "x"}), "1970-01-01 00:00:00.000000 1 F/0 file:1 f x\n");
}

TEST_F(TraceTest, TheSinkGetsTheRecord) {
    TraceHandle const handle("Cell");
    int records = 0;
    Trace::sinkIs([&](TraceRecord const& record) {
        ++records;
        EXPECT_EQ(record.time, 1700000000.123456);
        EXPECT_EQ(record.processId, 4711);
        EXPECT_STREQ(record.facility, "Cell");
        EXPECT_EQ(record.level, 3u);
        EXPECT_STREQ(record.file, "/src/Mox/Cell");
        EXPECT_EQ(record.line, 110u);
        EXPECT_STREQ(record.function, "void f(int)");
        EXPECT_EQ(record.text, "a\nb");
    });
    trace(handle, 3, "a\nb");
    EXPECT_EQ(records, 1);
}

TEST_F(TraceTest, ASinkMayTraceAndReconfigure) {
    TraceHandle handle("Cell");
    std::vector<std::string> texts;
    Trace::sinkIs([&](TraceRecord const& record) {
        texts.emplace_back(record.text);
        if (record.level == 1) {
            trace(handle, 2, "from the sink");
            Trace::levelsIs("Cell/5");
            Trace::sinkIs(nullptr);
        }
    });
    trace(handle, 1, "first");
    EXPECT_EQ(texts, (std::vector<std::string>{"first", "from the sink"}));
    EXPECT_EQ(levelsOf(handle), "5");
}

TEST_F(TraceTest, ASinkThatThrowsHarmsNobody) {
    TraceHandle const handle("Cell");
    int calls = 0;
    Trace::sinkIs([&](TraceRecord const&) {
        ++calls;
        throw std::runtime_error("sink");
    });
    EXPECT_NO_THROW(trace(handle, 0, "x"));
    EXPECT_NO_THROW(trace(handle, 0, "y"));
    EXPECT_EQ(calls, 2);
}

// --- the environment, which a process reads once: each of these tests needs a process of its own ---

class TraceDeathTest : public testing::Test {
protected:
    TraceDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }  // starts this program anew
    ~TraceDeathTest() override { GTEST_FLAG_SET(death_test_style, style_); }

    std::string const style_ = GTEST_FLAG_GET(death_test_style);
};

// Traces at levels 0, 8 and 9 of three facilities, the last of which is on by default, and ends the process.
[[noreturn]] void traceUnder(std::map<std::string, std::string> environment) {
    FakeCalls calls;
    calls.environment = std::move(environment);
    Vel::System::callsIs(&calls);
    TraceHandle cell("Cell");
    TraceHandle trie("PrefixTrie");
    TraceHandle loud("Loud", true);
    for (TraceHandle* const handle : {&cell, &trie, &loud})
        for (unsigned const level : {0u, 8u, 9u})
            if (handle->enabled(level)) trace(*handle, level, "x");
    ::_exit(0);
}

std::string lineOf(std::string const& facilityAndLevel) {
    return expectedStart + facilityAndLevel + " /src/Mox/Cell:110 void f(int) x\n";
}

std::string warningOf(std::string const& entry) {
    return "vel: VELTRACE: trace levels \"" + entry +
           "\" are not of the form FACILITY/LEVELS, such as Cell/0, PrefixTrie/8-9 or */*; ignored\n";
}

TEST_F(TraceDeathTest, WithoutAnEnvironmentOnlyDefaultsAreOn) {
    EXPECT_EXIT(traceUnder({}), testing::ExitedWithCode(0), testing::Eq(lineOf("Loud/0")));
}

TEST_F(TraceDeathTest, TheEnvironmentChoosesTheLevels) {
    EXPECT_EXIT(traceUnder({{"VELTRACE", "Cell/0,PrefixTrie/8-9"}}), testing::ExitedWithCode(0),
        testing::Eq(lineOf("Cell/0") + lineOf("PrefixTrie/8") + lineOf("PrefixTrie/9")));
}

TEST_F(TraceDeathTest, BadEntriesAreReportedOnceAndIgnored) {
    EXPECT_EXIT(traceUnder({{"VELTRACE", "Cell/x, PrefixTrie/8,nonsense"}}), testing::ExitedWithCode(0),
        testing::Eq(warningOf("Cell/x") + warningOf("nonsense") + lineOf("PrefixTrie/8")));
}

TEST_F(TraceDeathTest, TheProgramOverridesTheEnvironment) {
    EXPECT_EXIT(
        {
            Trace::levelsIs("Cell/9");
            traceUnder({{"VELTRACE", "*/*"}});
        },
        testing::ExitedWithCode(0), testing::Eq(lineOf("Cell/9")));
}

// A file name that the test and the process that it starts agree on, by an environment variable.
class TraceFile {
public:
    TraceFile() {
        if (char const* const inherited = std::getenv(variable)) {
            path_ = inherited;
            return;
        }
        std::string path = testing::TempDir() + "vel_trace_XXXXXX";
        int const file = ::mkstemp(path.data());
        EXPECT_GE(file, 0);
        EXPECT_EQ(::write(file, "before\n", 7), 7);
        ::close(file);
        ::setenv(variable, path.c_str(), 1);
        path_ = path;
    }
    TraceFile(TraceFile const&) = delete;
    TraceFile& operator=(TraceFile const&) = delete;
    ~TraceFile() {
        ::unlink(path_.c_str());
        ::unsetenv(variable);
    }

    std::string const& path() const { return path_; }
    std::string content() const {
        std::ifstream in(path_);
        return {std::istreambuf_iterator<char>(in), {}};
    }

private:
    static constexpr char const* variable = "VEL_TRACE_TEST_FILE";
    std::string path_;
};

TEST_F(TraceDeathTest, LinesAreAppendedToTheFileNamed) {
    TraceFile const file;
    EXPECT_EXIT(traceUnder({{"VELTRACE", "Cell/*"}, {"VELTRACEFILE", file.path()}}), testing::ExitedWithCode(0),
        testing::Eq(""));
    EXPECT_EQ(file.content(), "before\n" + lineOf("Cell/0") + lineOf("Cell/8") + lineOf("Cell/9"));
}

TEST_F(TraceDeathTest, AFileThatCannotBeOpenedIsReported) {
    EXPECT_EXIT(traceUnder({{"VELTRACE", "Cell/0"}, {"VELTRACEFILE", "/nonexistent/trace"}}),
        testing::ExitedWithCode(0),
        testing::Eq(
            "vel: VELTRACEFILE: /nonexistent/trace: No such file or directory (ENOENT); tracing to standard error\n" +
            lineOf("Cell/0")));
}

std::atomic<int> interruptions;

// Whether the thread sleeps: in a write to what is full, for instance.
bool isAsleep(pid_t thread) {
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string const text{std::istreambuf_iterator<char>(stat), {}};
    auto const name = text.rfind(") ");
    return name != std::string::npos && text[name + 2] == 'S';
}

// Traces into a pipe that is full, is interrupted again and again, and prints what comes out at last.
[[noreturn]] void traceInterrupted() {
    int both[2] = {-1, -1};
    if (::pipe2(both, O_NONBLOCK) != 0) ::_exit(1);
    std::string const filler(4096, '.');
    while (::write(both[1], filler.data(), filler.size()) > 0) {}
    struct sigaction action {};
    action.sa_handler = [](int) { ++interruptions; };
    ::sigaction(SIGUSR1, &action, nullptr);
    FakeCalls calls;
    calls.environment = {{"VELTRACE", "Cell/0"}, {"VELTRACEFILE", "/dev/fd/" + std::to_string(both[1])}};
    Vel::System::callsIs(&calls);
    std::atomic<pid_t> tracing{0};
    std::atomic<bool> isDone{false};
    std::thread tracer([&] {
        tracing = ::gettid();
        TraceHandle cell("Cell");
        trace(cell, 0, "x");
        isDone = true;
    });
    while (interruptions < 20 && !isDone) {
        if (!isAsleep(tracing)) continue;
        int const before = interruptions;
        ::pthread_kill(tracer.native_handle(), SIGUSR1);
        while (interruptions == before && !isDone) std::this_thread::yield();
    }
    for (char c = 0;;) {
        bool const wasDone = isDone;
        bool const got = ::read(both[0], &c, 1) == 1;
        if (got && c != '.') [[maybe_unused]]
            ssize_t const written = ::write(STDERR_FILENO, &c, 1);
        if (got || !wasDone) continue;
        tracer.join();
        ::_exit(0);
    }
}

TEST_F(TraceDeathTest, AnInterruptedTraceGoesOn) {
    std::string expected = lineOf("Cell/0");
    std::erase(expected, '.');  // as what is in the way
    EXPECT_EXIT(traceInterrupted(), testing::ExitedWithCode(0), testing::Eq(expected));
}

TEST_F(TraceDeathTest, AnEmptyFileNameMeansStandardError) {
    EXPECT_EXIT(traceUnder({{"VELTRACE", "Cell/0"}, {"VELTRACEFILE", ""}}), testing::ExitedWithCode(0),
        testing::Eq(lineOf("Cell/0")));
}

}  // namespace
