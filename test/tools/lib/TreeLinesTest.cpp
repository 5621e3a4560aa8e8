#include "tools/lib/TreeLines.h"

#include "tools/lib/StateFile.h"
#include "tools/lib/TreePicture.h"

#include "LibTest.h"

#include "Vel/entity/Dir.h"

#include <nlohmann/json.hpp>

#include <limits>

namespace {

using namespace Tool;
using Vel::Entity;
using Vel::Ptr;

constexpr char state[] = "/ Vel::Dir\n"
                         "/g Mox::GenerationEntity\n"
                         "/g generation = Value('Mox::Generation', ** {'id': 7, 'valid': True})\n"
                         "/r Vel::Dir\n"
                         "/r/s Redundancy::RedundancyStatus\n"
                         "/r/s activeCellId = 2\n";

class TreeLinesTest : public testing::Test {
protected:
    explicit TreeLinesTest(std::string_view text = state) : root_(entitiesFromState(text)) {}

    Ptr<Entity> root_;
    EntityTree tree_{*root_, "/"};
    Answers answers_{std::numeric_limits<std::size_t>::max()};
};

TEST_F(TreeLinesTest, AWholeTreeIsTheStateFileThatMakesIt) {
    TreeLines lines(answers_, false);
    for (auto* node = &tree_.root(); node; node = EntityTree::next(*node, tree_.root()))
        lines.whole(tree_, *node, false);
    EXPECT_EQ(answers_.kept(), state);
    EXPECT_EQ(lines.count(), 6u);
}

TEST_F(TreeLinesTest, WhatComesAndGoesIsMarked) {
    TreeLines lines(answers_, false, [](bool isNote) { return isNote ? "12:01" : "12:00"; });
    auto const& node = *tree_.root().children().begin()->second;
    lines.whole(tree_, node, true);
    lines.gone(node);
    lines.note("stale", "lost\n+ /forged Vel::Dir", {});
    EXPECT_EQ(answers_.kept(), "12:00 + /g Mox::GenerationEntity\n"
                               "12:00 /g generation = Value('Mox::Generation', ** {'id': 7, 'valid': True})\n"
                               "12:00 - /g\n"
                               "12:01 # stale: lost\\x0a+ /forged Vel::Dir\n");
}

TEST_F(TreeLinesTest, JsonTellsTheSameOneObjectALine) {
    TreeLines lines(answers_, true);
    auto const& node = *tree_.root().children().begin()->second;
    lines.whole(tree_, node, true);
    lines.note("synced", "3 entities", {{"entities", 3}});
    EXPECT_EQ(answers_.kept(), "{\"event\":\"entity\",\"path\":\"/g\",\"type\":\"Mox::GenerationEntity\"}\n"
                               "{\"event\":\"set\",\"path\":\"/g\",\"attribute\":\"generation\","
                               "\"value\":{\"id\":7,\"valid\":true}}\n"
                               "{\"event\":\"synced\",\"entities\":3}\n");
}

TEST_F(TreeLinesTest, AnEntityIsOneJsonObject) {
    EXPECT_EQ(entityJson(tree_, *tree_.root().children().begin()->second).dump(),
        "{\"path\":\"/g\",\"type\":\"Mox::GenerationEntity\","
        "\"attributes\":{\"generation\":{\"id\":7,\"valid\":true}},\"members\":[]}");
}

TEST_F(TreeLinesTest, ReferencesAreToldUnlessTheirTargetIsJustBelow) {
    auto const root = entitiesFromState("/a Tags::TagTrie\n/a/@state Tags::TagState\n"
                                        "/b Tags::TagTrie\n/b state = /a/@state\n/c Tags::TagTrie\n");
    EntityTree const tree(*root, "/");
    std::vector<std::string> texts;
    for (auto const& [at, node] : tree.root().children())
        for (auto const& [name, target] : referencesOf(tree, *node))
            texts.push_back(node->path() + " " + name + " " + target);
    EXPECT_THAT(texts, testing::ElementsAre("/b state /a/@state", "/c state None"));
}

TEST_F(TreeLinesTest, APictureShowsTypesAndValues) {
    drawEntities(answers_, tree_, tree_.root(), true);
    EXPECT_EQ(answers_.kept(), "/  Vel::Dir\n"
                               "|-- g  Mox::GenerationEntity\n"
                               "|   `-- generation = Value('Mox::Generation', ** {'id': 7, 'valid': True})\n"
                               "`-- r  Vel::Dir\n"
                               "    `-- s  Redundancy::RedundancyStatus\n"
                               "        `-- activeCellId = 2\n");
}

TEST_F(TreeLinesTest, APictureEndsAtItsDepth) {
    drawEntities(answers_, tree_, tree_.root(), true, 1);
    EXPECT_THAT(answers_.kept(), testing::EndsWith("`-- r  Vel::Dir  ...\n"));
}

TEST_F(TreeLinesTest, WhatIsLeftOutIsToldOf) {
    EXPECT_EQ(exitCodeOf(tree_), fine);
    auto const root = Vel::Dir::newEntity("");
    root->createEntity("Vel::Dir", std::string(70000, 'a'));
    int code = fine;
    EXPECT_EQ(ToolTest::complaintsOf([&] { code = exitCodeOf(EntityTree(*root, "/")); }),
        "mox: what has a path of more than 64 KiB is left out\n");
    EXPECT_EQ(code, somethingWrong);
}

}  // namespace
