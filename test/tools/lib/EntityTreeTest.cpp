#include "tools/lib/EntityTree.h"

#include "tools/lib/StateFile.h"

#include "LibTest.h"

#include "Vel/entity/Dir.h"

namespace {

using namespace Tool;
using Node = EntityTree::Node;
using testing::ElementsAre;
using Vel::Dir;
using Vel::Entity;
using Vel::Ptr;

std::vector<std::string> pathsOf(EntityTree const& tree) {
    std::vector<std::string> paths;
    for (Node* node = &tree.root(); node; node = EntityTree::next(*node, tree.root())) paths.push_back(node->path());
    return paths;
}

// Notes what it is told.
struct Notes final : EntityTree::Observer {
    void appeared(Node& node) override { all.push_back("+ " + node.path()); }
    void gone(Node& node) override { all.push_back("- " + node.path()); }
    void changed(Node& node, Vel::StreamAttribute const& attribute) override {
        all.push_back(node.path() + " " + attributeName(node.type(), attribute.id));
    }
    void memberChanged(Node& node, Vel::StreamAttribute const&, std::string const& key) override {
        all.push_back(node.path() + " [" + key + "]");
    }
    std::vector<std::string> take() { return std::exchange(all, {}); }
    std::vector<std::string> all;
};

TEST(EntityTreeTest, PathsComeInOrderEachBeforeWhatIsBelowIt) {
    auto const root = entitiesFromState("/b Vel::Dir\n/a/c Vel::Dir\n/a/b Vel::Dir\n");
    EntityTree const tree(*root, "/");
    EXPECT_THAT(pathsOf(tree), ElementsAre("/", "/a", "/a/b", "/a/c", "/b"));
    EXPECT_EQ(tree.size(), 5u);
    EXPECT_TRUE(tree.isWhole());
    Node& a = *tree.root().children().begin()->second;
    EXPECT_EQ(EntityTree::nextBeside(a, tree.root())->path(), "/b");
    EXPECT_EQ(EntityTree::nextBeside(a, a), nullptr);
}

TEST(EntityTreeTest, PathsBeginWithThatOfTheRoot) {
    auto const root = entitiesFromState("/a Vel::Dir\n");
    EXPECT_THAT(pathsOf(EntityTree(*root, "/x/y")), ElementsAre("/x/y", "/x/y/a"));
}

TEST(EntityTreeTest, WhatHasNoNameIsFoundByWhatRefersToIt) {
    auto const root = entitiesFromState("/t Tags::TagTrie\n/t/@state Tags::TagState\n"
                                        "/u Tags::TagTrie\n/u state = /t/@state\n");
    EXPECT_EQ(EntityTree(*root, "/").size(), 4u);
}

TEST(EntityTreeTest, WhatIsTooFarIsLeftOut) {
    auto const root = Dir::newEntity("");
    auto const below = Vel::ptr_cast<Dir>(root->createEntity("Vel::Dir", std::string(40000, 'a')));
    below->createEntity("Vel::Dir", std::string(40000, 'b'));
    EntityTree const tree(*root, "/");
    EXPECT_EQ(tree.size(), 2u);
    EXPECT_FALSE(tree.isWhole());
}

TEST(EntityTreeTest, AnObserverIsToldWhatComesChangesAndGoes) {
    auto const root = Vel::ptr_cast<Dir>(entitiesFromState("/c Cell::Status\n"));
    Notes notes;
    EntityTree tree(*root, "/", &notes);
    EXPECT_THAT(notes.take(), ElementsAre());
    auto const d = Vel::ptr_cast<Dir>(root->createEntity("Vel::Dir", "d"));
    d->createEntity("Vel::Dir", "e");
    EXPECT_THAT(notes.take(), ElementsAre("+ /d", "+ /d/e"));
    auto const status = Vel::ptr_cast<Vel::Entity>(root->entry("c"));
    storedValueIs(
        *status, attributeOf(*status, "product"), Vel::GenericValue(Vel::typeOf<Vel::String>(), Vel::String("'box'")));
    EXPECT_THAT(notes.take(), ElementsAre("/c product"));
    root->entryDel("d");
    EXPECT_THAT(notes.take(), ElementsAre("- /d"));
    tree.settle();
    EXPECT_THAT(pathsOf(tree), ElementsAre("/", "/c"));
}

TEST(EntityTreeTest, WhatHasMovedIsFoundWhenItSettles) {
    auto const root = Vel::ptr_cast<Dir>(entitiesFromState("/t Tags::TagTrie\n/t/@state Tags::TagState\n"));
    Notes notes;
    EntityTree tree(*root, "/", &notes);
    auto const trie = Vel::ptr_cast<Vel::Entity>(root->entry("t"));
    auto const& state = attributeOf(*trie, "state");
    Ptr<Entity> const kept = state.target(*trie);
    auto const other = root->createEntity("Tags::TagTrie", "u");
    state.targetIs(*trie, nullptr);
    attributeOf(*other, "state").targetIs(*other, kept.get());
    tree.settle();
    EXPECT_THAT(pathsOf(tree), ElementsAre("/", "/t", "/u", "/u/@state"));
    EXPECT_EQ(tree.find(*kept)->path(), "/u/@state");
}

}  // namespace
