#include "Vel/base/Assert.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

namespace {

// The C library's line, which begins with the program's name; an emulator says something of its own behind it.
std::string failureLine(std::string const& rest) {
    return std::string(program_invocation_short_name) + ": " + rest + "\n" +
           (std::getenv("MOX_UNDER_QEMU") ? "qemu: uncaught target signal 6 (Aborted) - core dumped\n" : "");
}

[[noreturn]] void failWithExplanation(unsigned id, unsigned size) {
    {
        Vel::SassertHelper helper("id < size()");
        helper.stream() << "id " << id << " exceeds limit of " << size;
    }
    Vel::assertionFailed("id < size()", "/src/Mox/IdSet", 7, "bool Mox::IdSet::id(Mox::Id) const");
}

TEST(AssertDeathTest, ExplainsThenFailsThroughTheCLibrary) {
    EXPECT_EXIT(failWithExplanation(70, 64), testing::KilledBySignal(SIGABRT),
        testing::Eq(
            "Assertion id < size() failed: id 70 exceeds limit of 64\n" +
            failureLine("/src/Mox/IdSet:7: bool Mox::IdSet::id(Mox::Id) const: Assertion `id < size()' failed.")));
}

TEST(AssertDeathTest, FailsWithoutAnExplanation) {
    EXPECT_EXIT(Vel::assertionFailed("!t.isPolymorphic()", "/usr/include/Vel/GenericIfImpl", 0, "void f()"),
        testing::KilledBySignal(SIGABRT),
        testing::Eq(failureLine("/usr/include/Vel/GenericIfImpl:0: void f(): Assertion `!t.isPolymorphic()' failed.")));
}

TEST(AssertTest, TheExplanationIsWrittenWhenTheHelperGoes) {
    testing::internal::CaptureStderr();
    {
        Vel::SassertHelper helper("a == b");
        helper.stream() << "a is " << 1 << "\nand b is " << 2;
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Assertion a == b failed: a is 1\nand b is 2\n");
}

TEST(AssertTest, TheExplanationMayBeEmpty) {
    testing::internal::CaptureStderr();
    { Vel::SassertHelper const helper("a == b"); }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Assertion a == b failed: \n");
}

}  // namespace
