#include "tools/lib/StateFile.h"

#include "tools/lib/EntityText.h"

#include "LibTest.h"

#include "Mox/Cell.h"
#include "Vel/entity/Dir.h"

namespace {

using namespace Tool;

// "LINE:COLUMN: TEXT" of each mistake.
std::vector<std::string> mistakes(std::string_view text) {
    std::vector<std::string> all;
    StateListener listener;
    listener.mistake = [&](StateMistake const& m) {
        all.push_back(std::to_string(m.line) + ":" + std::to_string(m.offset + 1) + ": " + m.text);
    };
    entitiesFromState(text, listener);
    return all;
}

std::string mistake(std::string_view text) {
    auto const all = mistakes(text);
    return all.size() == 1 ? all[0] : std::to_string(all.size()) + " mistakes";
}

TEST(StateFileTest, AFileSaysEntitiesValuesAndReferences) {
    auto const root = entitiesFromState("# comment\n\n/a/c Cell::Status\n/a/c product = 'box'\n"
                                        "/t Tags::TagTrie\n/t state = /u/@state\n"
                                        "/u Tags::TagTrie\n/u/@state Tags::TagState\n");
    auto const status = Vel::ptr_cast<Cell::Status>(root->entity("a/c"));
    ASSERT_TRUE(status);
    EXPECT_EQ(status->product(), "box");
    auto const t = root->entity("t"), u = root->entity("u");
    EXPECT_TRUE(attributeOf(*t, "state").target(*t));
    EXPECT_EQ(attributeOf(*t, "state").target(*t), attributeOf(*u, "state").target(*u));
}

TEST(StateFileTest, TheRootIsADirectoryUnlessTheFileSaysOtherwise) {
    EXPECT_EQ(std::string_view(entitiesFromState("")->fwkType().name()), "Vel::Dir");
    EXPECT_EQ(std::string_view(entitiesFromState("/ Cell::Status\n")->fwkType().name()), "Cell::Status");
}

TEST(StateFileTest, SaysWhatIsMissing) {
    EXPECT_EQ(mistake("/a\n"), "1:3: a type or an attribute expected behind the path");
    EXPECT_EQ(mistake("/a/b x = 1\n"), "1:2: there is no such entity");
    EXPECT_THAT(mistake("/c Cell::Status\n/c cell = 1\n"),
        testing::StartsWith("2:4: Cell::Status has no attribute cell; did you mean cellId"));
    EXPECT_THAT(mistake("/c Cell::Status\n/c cellId 1\n"), testing::StartsWith("2:11: an \"=\" expected"));
    EXPECT_EQ(mistake("/c Cell::Status\n/c/d Vel::Dir\n"), "2:4: a Cell::Status has no such place for an entity");
    EXPECT_EQ(mistake("/t Mox::PrefixTrie\n/t state = /nowhere\n"), "2:13: there is no such entity");
    EXPECT_EQ(mistake("/c Nonsense::Type\n"),
        "1:4: there is no type Nonsense::Type; libraries of further types are loaded by --module");
}

TEST(StateFileTest, RefusesWhatWouldBeTwiceOrWithinItself) {
    EXPECT_EQ(mistake("/a Vel::Dir\n/a Vel::Dir\n"), "2:1: this entity is there already");
    EXPECT_EQ(mistake("/a Vel::Dir\n/ Vel::Dir\n"), "2:1: the root comes first, or is a Vel::Dir");
    EXPECT_EQ(mistake("/t Mox::PrefixTrie\n/t/a Mox::PrefixTrie\n/t/a child 't' = /t\n"),
        "3:18: an entity cannot be within itself");
    EXPECT_EQ(mistake("/d Vel::Dir\n/t Vel::Dir\n/d entry 't' = /t\n"), "3:16: /t is in use in another place than /d");
}

TEST(StateFileTest, WhatFollowsFromAMistakeIsNone) {
    EXPECT_THAT(mistakes("/a Vel::Dirr\n/a/b Vel::Dir\n/a/b x = 1\n/t Tags::TagTrie\n/t state = /a/b\nb\n"),
        testing::ElementsAre("1:4: there is no type Vel::Dirr; did you mean Vel::Dir?",
            "6:1: a path expected, which begins with a \"/\""));
}

TEST(StateFileTest, WithoutAListenerTheFirstMistakeIsThrown) {
    try {
        entitiesFromState("/a Vel::Dir\nb\nc\n");
        ADD_FAILURE() << "nothing was thrown";
    } catch (StateMistake const& first) {
        EXPECT_EQ(first.line, 2u);
        EXPECT_EQ(first.lineText, "b");
    }
}

TEST(StateFileTest, TellsWhatIsTakenForSomethingElse) {
    std::vector<std::string> taken;
    StateListener listener;
    listener.taken = [&](StateMistake const& t) { taken.push_back(std::to_string(t.offset) + ": " + t.text); };
    entitiesFromState("/c Cell::Status\n/c product = uplink\n", listener);
    EXPECT_THAT(taken, testing::ElementsAre("13: uplink is taken for the text 'uplink'"));
}

}  // namespace
