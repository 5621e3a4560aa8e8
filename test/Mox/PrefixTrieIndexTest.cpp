#include "PrefixTrieTest.h"

#include "Mox/internal/PathIndex.h"
#include "Mox/internal/TriePath.h"

// When a trie that is asked has an index, and that it answers as the nodes do.
namespace {

using Mox::Detail::IndexUse;
using Mox::Detail::PathIndex;
using Vel::Ptr;

class PrefixTrieIndexTest : public PrefixTrieTest {
protected:
    ~PrefixTrieIndexTest() override { PathIndex::use = IndexUse::itself; }

    static bool hasIndex(Node const& node) { return node.velIndexMemory() != 0; }
    bool hasIndex() const { return hasIndex(*trie); }
    static void ask(Node const& node, unsigned times) {
        for (unsigned i = 0; i < times; ++i) node.isPrefix("no such");
    }
    void addMany(unsigned count) {
        for (unsigned i = 0; i < count; ++i) add("p" + std::to_string(i));
    }
    // The length of the longest prefix, by the nodes.
    static std::size_t walked(Node const& node, std::string_view path) {
        Ptr<Node const> at(&node);
        std::size_t length = 0;
        for (std::string_view rest = path; !rest.empty();) {
            Mox::Detail::PathStep const step(rest);
            at = at->child(step.head);
            if (!at) break;
            rest = step.rest;
            if (at->present()) length = path.size() - rest.size();
        }
        return length;
    }
    // Whether the trie has an index, and all its answers are right.
    static std::string wrong(Node const& node, Strings const& paths) {
        for (std::string const& path : paths) {
            std::size_t const length = walked(node, path);
            if (node.enclosingPrefix(path) != path.substr(0, length)) return "enclosingPrefix of " + path;
            if (node.hasPrefix(path) != (length != 0)) return "hasPrefix of " + path;
            if (node.isPrefix(path) != (length == path.size())) return "isPrefix of " + path;
            auto const state = node.prefixState(path);
            Ptr<Node const> at(&node);
            for (std::string_view rest = path; !rest.empty() && at;) {
                Mox::Detail::PathStep const step(rest);
                at = at->child(step.head);
                rest = step.rest;
            }
            if (state != (at && at->present() ? at->state() : nullptr)) return "prefixState of " + path;
        }
        return hasIndex(node) ? "" : "no index";
    }
    std::string wrong() const { return wrong(*trie, paths); }

    Strings const paths = {"a", "a/b", "a/b.c", "a/b.c/d", "a/b/c", "a.b", "b", "b/c", "b/c/d/e", "c", "/b", "a//b"};
};

TEST_F(PrefixTrieIndexTest, IsMadeBySixtyFourQuestions) {
    add("a");
    add("a/b.c");
    ask(*trie, 63);
    EXPECT_FALSE(hasIndex());
    ask(*trie, 1);
    EXPECT_EQ(wrong(), "");
}

TEST_F(PrefixTrieIndexTest, IsMadeOnceThereAreFewerThanSixtyFourNodesForEachQuestion) {
    addMany(4095);
    ask(*trie, 63);
    EXPECT_FALSE(hasIndex());
    ask(*trie, 1);
    EXPECT_TRUE(hasIndex());

    auto const larger = Trie::newEntity("larger");
    for (unsigned i = 0; i < 4096; ++i) addTo(*larger, "p" + std::to_string(i));
    ask(*larger, 127);
    EXPECT_FALSE(hasIndex(*larger));
    ask(*larger, 1);
    EXPECT_TRUE(hasIndex(*larger));
}

TEST_F(PrefixTrieIndexTest, IsDroppedWhenChangesOutnumberQuestionsByItsSize) {
    addMany(100);
    ask(*trie, 64);
    ASSERT_TRUE(hasIndex());
    for (unsigned i = 0; i < 163; ++i) trie->prefixIs("x", stateOf("x")), trie->child("x")->presentIs(i % 2);
    unsigned changes = 0;
    while (hasIndex() && changes < 1000) trie->child("x")->presentIs(++changes % 2);
    EXPECT_FALSE(hasIndex());
    ask(*trie, 63);
    EXPECT_FALSE(hasIndex());  // it is as if it had never been asked
    ask(*trie, 1);
    EXPECT_TRUE(hasIndex());
    for (unsigned i = 0; i < 1000; ++i) {
        trie->child("x")->presentIs(i % 2);
        ask(*trie, 1);
        ASSERT_TRUE(hasIndex());
    }
}

TEST_F(PrefixTrieIndexTest, FollowsWhatIsAddedAndDeleted) {
    PathIndex::use = IndexUse::always;
    EXPECT_EQ(wrong(), "");
    Strings const added = {"a/b.c", "a", "b/c/d", "a.b", "b", "a/b"};
    for (auto const& path : added) {
        add(path);
        ASSERT_EQ(wrong(), "") << path;
    }
    for (auto const& path : added) {
        trie->prefixDel(path);
        ASSERT_EQ(wrong(), "") << path;
    }
    for (auto const& path : added) {  // what has been pruned is used again
        add(path);
        ASSERT_EQ(wrong(), "") << path;
    }
    auto const other = trieOf({"a/b.c/d", "c", "b/c"});
    trie->append(other);
    ASSERT_EQ(wrong(), "");
    trie->emptyIs(true);
    ASSERT_EQ(wrong(), "");
}

TEST_F(PrefixTrieIndexTest, FollowsChangesOfSingleNodes) {
    PathIndex::use = IndexUse::always;
    add("a/b.c/d");
    add("b/c");
    EXPECT_EQ(wrong(), "");
    nodeAt({"a", "/b"})->presentIs(true);
    EXPECT_EQ(wrong(), "");
    nodeAt({"a", "/b", ".c", "/d"})->presentIs(false);
    EXPECT_EQ(wrong(), "");
    auto const a = trie->childDel("a");
    EXPECT_EQ(wrong(), "");
    nodeAt({"a", "/b", ".c"})->presentIs(true);  // not in the index now
    EXPECT_EQ(wrong(), "");
    trie->childIs(a);  // with all that is below it
    EXPECT_EQ(wrong(), "");
    Ptr<Node> const another = trieOf({"/b", "/b/c"});
    Ptr<Node> const b = Trie::newEntity("a");
    for (auto const& key : {"/b"}) b->childIs(another->child(key));
    trie->childIs(b);  // in the place of the other
    EXPECT_EQ(wrong(), "");
    nodeAt({"a", "/b"})->presentIs(false);  // the other's
    EXPECT_EQ(wrong(), "");
    b->childDelAll();
    EXPECT_EQ(wrong(), "");
}

TEST_F(PrefixTrieIndexTest, DoesNotCareForParents) {
    PathIndex::use = IndexUse::always;
    add("a/b.c");
    add("b/c");
    EXPECT_EQ(wrong(), "");
    auto const a = nodeAt({"a"});
    auto const b = nodeAt({"a", "/b"});
    auto const c = nodeAt({"a", "/b", ".c"});
    b->parentIs(nullptr);
    c->presentIs(false);
    EXPECT_EQ(wrong(), "");
    b->parentIs(nodeAt({"b"}).get());
    c->presentIs(true);
    EXPECT_EQ(wrong(), "");
    trie->prefixChildDel("a");  // stays in `child`
    c->presentIs(false);
    b->presentIs(true);
    EXPECT_EQ(wrong(), "");
    auto const status = Mox::prefixTrieFactory("elsewhere");
    a->parentIs(status.get());
    a->presentIs(true);
    EXPECT_EQ(wrong(), "");
    a->parentIs(nullptr);
    b->parentIs(a.get());
}

TEST_F(PrefixTrieIndexTest, NodeThatIsThereTwiceEndsIt) {
    add("a/b.c");
    add("b");
    ask(*trie, 64);
    ASSERT_TRUE(hasIndex());
    nodeAt({"b"})->childIs(nodeAt({"a", "/b"}));
    EXPECT_FALSE(hasIndex());
    ask(*trie, 1000);
    EXPECT_FALSE(hasIndex());
    EXPECT_TRUE(trie->isPrefix("b/b.c"));
    nodeAt({"a", "/b", ".c"})->presentIs(false);
    EXPECT_FALSE(trie->isPrefix("b/b.c"));
    nodeAt({"b"})->childDel("/b");
    ask(*trie, 1024);
    EXPECT_EQ(wrong(), "");
}

TEST_F(PrefixTrieIndexTest, NodeOfTwoTriesIsInTheIndexOfTheLastOneThatMadeIt) {
    PathIndex::use = IndexUse::always;
    add("a/b.c");
    auto const other = trieOf({"b"});
    EXPECT_EQ(wrong(), "");
    EXPECT_EQ(wrong(*other, paths), "");
    other->childIs(nodeAt({"a"}));
    EXPECT_FALSE(hasIndex());
    nodeAt({"a", "/b"})->presentIs(true);
    EXPECT_EQ(wrong(*other, paths), "");
    EXPECT_EQ(wrong(), "");
    EXPECT_FALSE(hasIndex(*other));
    EXPECT_EQ(wrong(*other, paths), "");
    other->childDel("a");
    EXPECT_EQ(wrong(), "");
    nodeAt({"a", "/b"})->presentIs(false);
    EXPECT_EQ(wrong(), "");
}

TEST_F(PrefixTrieIndexTest, RootTakesOverFromNodesBelow) {
    PathIndex::use = IndexUse::always;
    add("a/b.c");
    auto const inner = nodeAt({"a"});
    Strings const below = {"/b", "/b.c", "/b.c/d", "/c"};
    EXPECT_EQ(wrong(*inner, below), "");
    EXPECT_EQ(wrong(), "");
    EXPECT_EQ(wrong(*inner, below), "no index");  // it walks, and is right
    nodeAt({"a", "/b"})->presentIs(true);
    EXPECT_EQ(wrong(*inner, below), "no index");
    EXPECT_EQ(wrong(), "");
    trie->childDel("a");
    EXPECT_EQ(wrong(*inner, below), "");
    EXPECT_EQ(wrong(), "");
    trie->childIs(inner);  // with an index of its own, which is dropped
    EXPECT_FALSE(hasIndex(*inner));
    EXPECT_EQ(wrong(), "");
}

TEST_F(PrefixTrieIndexTest, NodesOutliveIt) {
    PathIndex::use = IndexUse::always;
    auto other = trieOf({"a/b.c", "a"});
    EXPECT_EQ(wrong(*other, paths), "");
    auto const a = other->child("a");
    other = nullptr;
    a->presentIs(false);
    a->child("/b")->presentIs(true);
    EXPECT_EQ(wrong(*a, {"/b", "/b.c"}), "");
}

// What an index does not take is found by walking.
TEST_F(PrefixTrieIndexTest, LongStarredAndOddPathsAreAnsweredToo) {
    PathIndex::use = IndexUse::always;
    std::string const longest = "a" + pathOf(85, "/bc");  // 256 bytes
    add("x*/y");
    add(longest);
    add(longest + "/d");
    add("");
    auto const odd = nodeAt({"x"})->newChildIs("no separator");
    odd->presentIs(true);
    EXPECT_EQ(wrong(*trie, {longest, longest + "/e"}), "");
    EXPECT_TRUE(trie->isPrefix(longest + "/d"));
    EXPECT_EQ(trie->enclosingPrefix(longest + "/d/e"), longest + "/d");
    trie->prefixDel(longest + "/d");
    EXPECT_EQ(trie->enclosingPrefix(longest + "/d/e"), longest);
    EXPECT_TRUE(trie->isPrefix("x*/y"));
    EXPECT_EQ(trie->enclosingPrefix("x*/y/z"), "x/y");
    EXPECT_TRUE(trie->isPrefix(""));
    EXPECT_FALSE(trie->isPrefix("xno separator"));
    EXPECT_TRUE(hasIndex());
}

TEST_F(PrefixTrieIndexTest, TracedQuestionsWalk) {
    PathIndex::use = IndexUse::always;
    add("a/b");
    EXPECT_EQ(wrong(), "");
    unsigned lines = 0;
    Vel::Trace::levelsIs("PrefixTrie/8");
    Vel::Trace::sinkIs([&](auto const&...) { ++lines; });
    EXPECT_TRUE(trie->isPrefix("a/b"));
    EXPECT_TRUE(trie->hasPrefix("a/b/c"));
    EXPECT_EQ(lines, 4u);
}

// An observer is told when the index knows.
TEST_F(PrefixTrieIndexTest, ObserversAskWhatIsNew) {
    PathIndex::use = IndexUse::always;
    add("a/b");
    EXPECT_EQ(wrong(), "");
    Strings answers;
    auto const notifiee = Vel::notifieeOf(
        *nodeAt({"a"}), [&](Vel::AttributeId) { answers.push_back(trie->isPrefix("a") ? "a" : "none"); });
    nodeAt({"a"})->presentIs(true);
    nodeAt({"a"})->presentIs(false);
    EXPECT_EQ(answers, (Strings{"a", "none"}));
}

TEST_F(PrefixTrieIndexTest, IsNotMadeByChanges) {
    for (unsigned round = 0; round < 10; ++round) {
        addMany(300);
        for (unsigned i = 0; i < 300; ++i) trie->prefixDel("p" + std::to_string(i));
        ask(*trie, 6);
    }
    EXPECT_FALSE(hasIndex());
}

}  // namespace
