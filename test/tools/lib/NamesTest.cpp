#include "tools/lib/Names.h"

#include "tools/lib/Numbers.h"

#include "LibTest.h"

#include <cstdint>

namespace {

using namespace Tool;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> const known = {"cellId", "activeCellId", "Mox::Seqno16", "Mox::Seqno32", "Vel::Dir"};

TEST(NamesTest, TheNearestComesFirst) {
    EXPECT_THAT(nearest("cellid", known), ElementsAre("cellId"));
    EXPECT_THAT(nearest("seqno", known), ElementsAre("Mox::Seqno16", "Mox::Seqno32"));
    EXPECT_THAT(nearest("Seqno32", known), ElementsAre("Mox::Seqno32"));
    EXPECT_THAT(nearest("Vel::Dirr", known), ElementsAre("Vel::Dir"));
}

TEST(NamesTest, WhatIsFarFromAllIsNearNone) {
    EXPECT_THAT(nearest("zebra", known), IsEmpty());
    EXPECT_THAT(nearest("", known), IsEmpty());
    EXPECT_THAT(nearest(std::string(101, 'c'), {std::string(101, 'c')}), IsEmpty());
}

TEST(NamesTest, NoMoreThanThreeAreNear) {
    EXPECT_THAT(nearest("a1", {"a2", "a3", "a2", "a4", "a5"}), ElementsAre("a2", "a3", "a4"));
}

TEST(NamesTest, AlternativesAreASentence) {
    EXPECT_EQ(alternatives({"a"}), "a");
    EXPECT_EQ(alternatives({"a", "b"}), "a or b");
    EXPECT_EQ(alternatives({"a", "b", "c"}), "a, b or c");
}

TEST(NamesTest, ASentenceGoesOnWithWhatIsNearOrWithWhatThereIs) {
    EXPECT_EQ(orNearest("cellid", known, "; look"), "; did you mean cellId?");
    EXPECT_EQ(orNearest("zebra", known, "; look"), "; look");
    EXPECT_EQ(orNearest("zebra", {"a", "b"}), ", only a, b");
    EXPECT_EQ(orNearest("zebra", {}), "");
}

TEST(NamesTest, ATypeThatIsNotThereIsAnsweredWithOneThatIs) {
    EXPECT_EQ(std::string_view(typeNamed("Vel::Dir").name()), "Vel::Dir");
    EXPECT_EQ(
        ToolTest::failureOf([] { typeNamed("Vel::Dirr"); }), "2: there is no type Vel::Dirr; did you mean Vel::Dir?");
    EXPECT_EQ(ToolTest::failureOf([] { typeNamed("zzzzzz"); }), "2: there is no type zzzzzz; \"mox types\" lists all");
}

TEST(NumbersTest, AWholeTextIsANumberOrNothing) {
    EXPECT_EQ(numberFrom<std::uint32_t>("4294967295"), 4294967295u);
    for (char const* const text : {"", " 1", "1 ", "+1", "-1", "0x1", "1.0", "4294967296"})
        EXPECT_EQ(numberFrom<std::uint32_t>(text), std::nullopt) << text;
}

}  // namespace
