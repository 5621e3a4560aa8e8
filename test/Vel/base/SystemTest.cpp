#include "Vel/base/System.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/auxv.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Vel::System;
using Vel::SystemCalls;

// Answers some calls itself; the others go to the C library.
class Fake : public SystemCalls {
public:
    double currentTime() override { return 1700000000.5; }
    char const* getenv(char const*) override { return "fake"; }
};

class SystemTest : public testing::Test {
protected:
    ~SystemTest() override { System::callsIs(nullptr); }
};

TEST_F(SystemTest, ReplacedCallsAreUsedUntilTheRealOnesReturn) {
    Fake fake;
    EXPECT_EQ(System::callsIs(&fake), nullptr);
    EXPECT_EQ(&System::calls(), &fake);
    EXPECT_EQ(System::currentTime(), 1700000000.5);
    EXPECT_STREQ(System::calls().getenv("PATH"), "fake");
    EXPECT_EQ(System::callsIs(nullptr), &fake);
    EXPECT_NE(&System::calls(), &fake);
    EXPECT_NE(System::currentTime(), 1700000000.5);
}

TEST_F(SystemTest, TheReturnedCallsCanBePutBack) {
    Fake outer;
    Fake inner;
    System::callsIs(&outer);
    SystemCalls* const before = System::callsIs(&inner);
    EXPECT_EQ(before, &outer);
    EXPECT_EQ(System::callsIs(before), &inner);
    EXPECT_EQ(&System::calls(), &outer);
}

TEST_F(SystemTest, WhatAFakeLeavesAloneIsReal) {
    Fake fake;
    System::callsIs(&fake);
    EXPECT_EQ(System::calls().getpid(), ::getpid());
}

TEST_F(SystemTest, ReadsTheEnvironment) {
    ::setenv("VEL_SYSTEM_TEST", "value", 1);
    EXPECT_STREQ(System::calls().getenv("VEL_SYSTEM_TEST"), "value");
    ::unsetenv("VEL_SYSTEM_TEST");
    EXPECT_EQ(System::calls().getenv("VEL_SYSTEM_TEST"), nullptr);
}

TEST_F(SystemTest, ReadsFiles) {
    int const file = System::calls().open(MOX_SOURCE_DIR "/test/Mox/golden.tsv", O_RDONLY);
    ASSERT_GE(file, 0);
    char buffer[16];
    ASSERT_EQ(System::calls().read(file, buffer, sizeof buffer), 16);
    EXPECT_EQ(std::string(buffer, sizeof buffer), "# Text and bytes");
    EXPECT_EQ(System::calls().close(file), 0);
    errno = 0;
    EXPECT_EQ(System::calls().close(file), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(SystemTest, FilesAreNotInheritedByOtherPrograms) {
    int const file = System::calls().open("/dev/null", O_RDONLY);
    ASSERT_GE(file, 0);
    EXPECT_EQ(::fcntl(file, F_GETFD), FD_CLOEXEC);
    System::calls().close(file);
}

TEST_F(SystemTest, FailuresAreThoseOfPosix) {
    errno = 0;
    EXPECT_EQ(System::calls().open("/nonexistent/file", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
    char byte = 0;
    EXPECT_EQ(System::calls().read(-1, &byte, 1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(SystemTest, TheClockIsTheSystems) {
    using namespace std::chrono;
    auto const now = [] { return duration<double>(system_clock::now().time_since_epoch()).count(); };
    double const before = now();
    double const time = System::currentTime();
    double const after = now();
    EXPECT_GE(time, before - 1e-6);  // the two round differently
    EXPECT_LE(time, after + 1e-6);
}

TEST_F(SystemTest, SecondsAreTheSystemsAtTheLastTick) {
    double const before = System::currentTime();
    std::int64_t const seconds = System::calls().currentSeconds();
    double const after = System::currentTime();
    EXPECT_GE(static_cast<double>(seconds), before - 1.1);  // a tick may be late
    EXPECT_LE(static_cast<double>(seconds), after);
}

TEST_F(SystemTest, SecondsAreThoseOfAReplacedClock) {
    class Clock : public Vel::SystemCalls {
    public:
        double currentTime() override { return 1700000000.999; }
    } clock;
    auto* const before = System::callsIs(&clock);
    EXPECT_EQ(System::calls().currentSeconds(), 1700000000);
    System::callsIs(before);
}

TEST_F(SystemTest, RandomBytesFillAllThatIsAskedFor) {
    std::vector<unsigned char> bytes(5000);
    System::calls().random(bytes.data(), bytes.size());
    unsigned counts[256] = {};
    for (unsigned char const byte : bytes) ++counts[byte];
    EXPECT_LT(*std::max_element(std::begin(counts), std::end(counts)), 60u);  // 20 expected, standard deviation 4.4
    EXPECT_NE(std::count(bytes.end() - 16, bytes.end(), 0), 16);
    std::vector<unsigned char> others(5000);
    System::calls().random(others.data(), others.size());
    EXPECT_NE(bytes, others);
    System::calls().random(nullptr, 0);
}

// In this process from now on; false where the system has no such filters.
bool forbidGetrandom() {
    sock_filter instructions[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_getrandom, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog const filter{static_cast<unsigned short>(std::size(instructions)), instructions};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

TEST(SystemDeathTest, WhereTheCallIsForbiddenRandomBytesAreThoseThatTheKernelGaveTheProgram) {
    constexpr int noFilters = 2;
    auto const fill = [] {
        if (!forbidGetrandom()) ::_exit(noFilters);
        char bytes[40];
        System::calls().random(bytes, sizeof bytes);
        auto const* const given = reinterpret_cast<char const*>(::getauxval(AT_RANDOM));
        bool const same = std::memcmp(bytes, given, 16) == 0 && std::memcmp(bytes + 16, given, 16) == 0 &&
                          std::memcmp(bytes + 32, given, 8) == 0;
        ::_exit(same ? 0 : 1);
    };
    int code = -1;
    EXPECT_EXIT(
        fill(),
        [&](int status) { return WIFEXITED(status) && ((code = WEXITSTATUS(status)) == 0 || code == noFilters); }, "");
    if (code == noFilters) GTEST_SKIP() << "no filters of system calls here";
}

}  // namespace
