#include "tools/lib/RootedCalls.h"

#include "LibTest.h"

#include <cstdlib>
#include <filesystem>

#include <fcntl.h>

namespace {

using namespace Tool;

class RootedCallsTest : public testing::Test {
protected:
    std::string contentOf(RootedCalls& calls, char const* path) const {
        int const file = calls.open(path, O_RDONLY);
        if (file < 0) return "errno " + std::to_string(errno);
        char bytes[100];
        ssize_t const size = calls.read(file, bytes, sizeof bytes);
        calls.close(file);
        return {bytes, static_cast<std::size_t>(size)};
    }
    ToolTest::Folder root_;
};

TEST_F(RootedCallsTest, AbsolutePathsAreBelowTheRoot) {
    root_.write("etc/cellid", "3");
    RootedCalls calls(root_.path() + "//", false);
    EXPECT_EQ(contentOf(calls, "/etc/cellid"), "3");
    EXPECT_EQ(contentOf(calls, "/etc/nothing"), "errno " + std::to_string(ENOENT));
    EXPECT_EQ(calls.realPath("/etc/cellid"), root_.path() + "/etc/cellid");
    EXPECT_EQ(calls.realPath("etc"), "etc");
}

TEST_F(RootedCallsTest, SymbolicLinksStayBelowIt) {
    root_.write("run/cellid", "4");
    std::filesystem::create_symlink("/run/cellid", root_.path() + "/cellid");
    RootedCalls calls(root_.path(), false);
    EXPECT_EQ(contentOf(calls, "/cellid"), "4");
}

TEST_F(RootedCallsTest, WithoutARootPathsAreTheMachines) {
    std::string const path = root_.write("f", "5");
    RootedCalls calls("", false);
    EXPECT_EQ(contentOf(calls, path.c_str()), "5");
    EXPECT_EQ(calls.realPath(path), path);
}

TEST_F(RootedCallsTest, AnEmptyEnvironmentStillConfiguresTracing) {
    ::setenv("VELTRACE_TEST", "1", 1);
    RootedCalls open("", false), shut("", true);
    EXPECT_TRUE(open.getenv("PATH"));
    EXPECT_FALSE(shut.getenv("PATH"));
    EXPECT_STREQ(shut.getenv("VELTRACE_TEST"), "1");
    ::unsetenv("VELTRACE_TEST");
}

}  // namespace
