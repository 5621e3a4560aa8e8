#include "tools/lib/Moments.h"

#include "tools/lib/Isolated.h"

#include "LibTest.h"

#include <cstdlib>

namespace {

using namespace Tool;
using testing::MatchesRegex;

TEST(MomentsTest, EachFormHasItsTexts) {
    EXPECT_THAT(Moments(TimeForm::local).text(),
        MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}"));
    EXPECT_THAT(Moments(TimeForm::local).isoText(), MatchesRegex(".*T.*\\.[0-9]{3}[+-][0-9]{2}:[0-9]{2}"));
    EXPECT_THAT(Moments(TimeForm::utc).isoText(), MatchesRegex(".*T.*\\.[0-9]{3}Z"));
    EXPECT_THAT(Moments(TimeForm::relative).text(), MatchesRegex("\\+[0-9]+\\.[0-9]{3}"));
    EXPECT_THAT(Moments(TimeForm::relative).isoText(), MatchesRegex("PT[0-9]+\\.[0-9]{3}S"));
    EXPECT_EQ(Moments(TimeForm::none).text(), "");
}

TEST(MomentsTest, AnUnknownFormIsRefused) {
    EXPECT_EQ(timeFormFrom("utc"), TimeForm::utc);
    EXPECT_EQ(
        ToolTest::failureOf([] { timeFormFrom("UTC"); }), "2: --time: UTC is none of local, utc, relative and none");
}

TEST(IsolatedTest, ATextComesBackAndWhatFailsDoesNot) {
    EXPECT_EQ(isolated([] { return std::string(100000, 'a'); }), std::string(100000, 'a'));
    EXPECT_EQ(isolated([]() -> std::string { throw std::runtime_error("no"); }), std::nullopt);
    EXPECT_EQ(isolated([]() -> std::string { std::abort(); }), std::nullopt);
}

}  // namespace
