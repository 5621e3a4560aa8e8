#include "Allocations.h"
#include "PrefixTrieTest.h"

// What a trie answers about paths.
namespace {

using namespace std::string_literals;
using Vel::Ptr;

class PrefixTriePathsTest : public PrefixTrieTest {
protected:
    // All queries about a path: p(refix) l(eaf) h(as) r (has proper), then the enclosing prefixes and whether it has a
    // state.
    std::string answers(std::string_view path) const {
        std::string text;
        if (trie->isPrefix(path)) text += 'p';
        if (trie->isLeaf(path)) text += 'l';
        if (trie->hasPrefix(path)) text += 'h';
        if (trie->hasProperPrefix(path)) text += 'r';
        text += " " + trie->enclosingPrefix(path).stdString() + " " + trie->properEnclosingPrefix(path).stdString();
        return text + (trie->prefixState(path) ? " s" : "");
    }
};

TEST_F(PrefixTriePathsTest, EmptyTrieHasNothing) {
    for (char const* path : {"", "/", ".", "a", "a/b", "*", "*/", "/*", "a*/b", "//", "a//b/"})
        EXPECT_EQ(answers(path), "  ") << path;
}

TEST_F(PrefixTriePathsTest, OnlyTheInnermostPathIsPresent) {
    add("a/b");
    EXPECT_EQ(answers("a"), "  ");
    EXPECT_EQ(answers("a/b"), "plh a/b  s");
    EXPECT_EQ(answers("a/b/c"), "hr a/b a/b");
    EXPECT_EQ(answers("a/b.c/d"), "hr a/b a/b");
    EXPECT_EQ(answers("a/bc"), "  ");
    EXPECT_EQ(answers("a.b"), "  ");
    EXPECT_EQ(answers("/a/b"), "  ");
    EXPECT_EQ(answers("a//b"), "  ");
    EXPECT_EQ(answers("a/b/"), "hr a/b a/b");
}

TEST_F(PrefixTriePathsTest, LongestEnclosingPrefixIsFound) {
    add("a");
    add("a/b");
    EXPECT_EQ(answers("a"), "ph a  s");
    EXPECT_EQ(answers("a/b"), "plhr a/b a s");
    EXPECT_EQ(answers("a/b/c"), "hr a/b a/b");
    EXPECT_EQ(answers("a/x"), "hr a a");  // which has no node
    EXPECT_EQ(answers("a/x/y/z"), "hr a a");
    EXPECT_EQ(answers("b"), "  ");
}

TEST_F(PrefixTriePathsTest, PresentNodesWithGapsAreFoundFromAnyDepth) {
    add("a/b");
    add("a/b/c/d");
    EXPECT_EQ(answers("a/b/c"), "hr a/b a/b");
    EXPECT_EQ(answers("a/b/c/d"), "plhr a/b/c/d a/b s");
    EXPECT_EQ(answers("a/b/c/d/e"), "hr a/b/c/d a/b/c/d");
    EXPECT_EQ(answers("a/b/c/x"), "hr a/b a/b");
}

TEST_F(PrefixTriePathsTest, StarsBeforeSeparatorsAreDropped) {
    add("a*/b");
    EXPECT_EQ(answers("a"), "  ");
    EXPECT_EQ(answers("a/b"), "plh a/b  s");
    EXPECT_EQ(answers("a*/b"), "plh a/b  s");
    EXPECT_EQ(answers("a*/b*"), "  ");  // the last component is taken as it stands
    EXPECT_EQ(answers("a*/b*/c*/d"), "hr a/b a/b");
    EXPECT_EQ(answers("a**/b"), "  ");
    EXPECT_EQ(answers("*a/b"), "  ");
    add("x/y/z");
    add("x");
    EXPECT_EQ(answers("x*/y*/z*/q"), "hr x/y/z x/y/z");
    EXPECT_EQ(answers("x*/y*/q*"), "hr x x");
    EXPECT_EQ(answers("x*/y*/z"), "plhr x/y/z x s");
}

TEST_F(PrefixTriePathsTest, OnlyTheFirstStarOfTheRestIsDropped) {
    add("a*b*/c");
    EXPECT_EQ(answers("a*b*/c"), "plh a*b*/c  s");
    EXPECT_EQ(answers("a*b/c"), "  ");
    EXPECT_EQ(answers("a*b*/c/d*"), "hr a*b*/c a*b*/c");
    add("p*q/r");
    EXPECT_EQ(answers("p*q/r*/s"), "hr p*q/r p*q/r");
}

TEST_F(PrefixTriePathsTest, LastComponentMayHoldAStarThatChildIsBrought) {
    auto const node = trie->newChildIs("a*");
    node->presentIs(true);
    EXPECT_EQ(answers("a*"), "plh a* ");
    EXPECT_EQ(answers("a*/b"), "  ");
}

TEST_F(PrefixTriePathsTest, EmptyKeyIsAKey) {
    add("*/b");
    add("");
    EXPECT_EQ(answers(""), "ph   s");
    EXPECT_EQ(answers("*/b"), "plhr /b  s");
    EXPECT_EQ(answers("/b"), "  ");
    EXPECT_EQ(answers("*/x"), "hr  ");  // enclosed by the empty path
    EXPECT_EQ(answers("*/b/c"), "hr /b /b");
    EXPECT_EQ(answers("*/b*/c"), "hr /b /b");
}

TEST_F(PrefixTriePathsTest, SeparatorsAloneArePaths) {
    add("/");
    add("..");
    EXPECT_EQ(answers("/"), "plh /  s");
    EXPECT_EQ(answers("//"), "hr / /");
    EXPECT_EQ(answers("/."), "hr / /");
    EXPECT_EQ(answers("/*"), "  ");
    EXPECT_EQ(answers("/*/"), "hr / /");
    EXPECT_EQ(answers("."), "  ");
    EXPECT_EQ(answers(".."), "plh ..  s");
    EXPECT_EQ(answers("../"), "hr .. ..");
    EXPECT_EQ(answers("./"), "  ");
    EXPECT_EQ(answers(".a"), "  ");
}

TEST_F(PrefixTriePathsTest, DoubledSeparatorsAreComponents) {
    add("a//b");
    add("a/");
    EXPECT_EQ(answers("a/"), "ph a/  s");
    EXPECT_EQ(answers("a//b"), "plhr a//b a/ s");
    EXPECT_EQ(answers("a//"), "hr a/ a/");
    EXPECT_EQ(answers("a///b"), "hr a/ a/");
    EXPECT_EQ(answers("a/b"), "  ");
}

TEST_F(PrefixTriePathsTest, HighBytesAndNulAreOrdinary) {
    add("\xFF\x80/\0x"s);
    EXPECT_EQ(answers("\xFF\x80/\0x"s), "plh \xFF\x80/\0x  s"s);
    EXPECT_EQ(answers("\xFF\x80/\0x/\xAF"s), "hr \xFF\x80/\0x \xFF\x80/\0x"s);
    EXPECT_EQ(answers("\xFF\x80/"s), "  ");
    EXPECT_EQ(answers("\xFF\x80/\0"s), "  ");
    EXPECT_EQ(answers("\xFF\x80*/\0x"s), "plh \xFF\x80/\0x  s"s);
}

TEST_F(PrefixTriePathsTest, DeletedPrefixWithChildrenIsNoPrefixAnyMore) {
    add("a/b");
    add("a/b/c");
    trie->prefixDel("a/b");
    EXPECT_EQ(answers("a/b"), "  ");
    EXPECT_EQ(answers("a/b/c"), "plh a/b/c  s");
    EXPECT_EQ(answers("a/b/x"), "  ");
}

TEST_F(PrefixTriePathsTest, PrunedNodesAnswerNothing) {
    add("a/b");
    trie->prefixDel("a/b");
    EXPECT_EQ(answers("a"), "  ");
    EXPECT_EQ(answers("a/b"), "  ");
}

TEST_F(PrefixTriePathsTest, RootsOwnFlagsAreNotAsked) {
    trie->presentIs(true);
    trie->stateIs(stateOf("own"));
    EXPECT_EQ(answers(""), "  ");
    EXPECT_EQ(answers("a"), "  ");
    EXPECT_EQ(answers("root"), "  ");
}

TEST_F(PrefixTriePathsTest, StateIsOfAPresentPrefixOnly) {
    add("a/b", {"b"});
    auto const state = trie->prefixState("a/b");
    EXPECT_EQ(state, nodeAt({"a", "/b"})->state());
    EXPECT_EQ(trie->prefixState("a*/b"), state);
    EXPECT_TRUE(nodeAt({"a"})->state());
    EXPECT_EQ(trie->prefixState("a"), nullptr);
}

TEST_F(PrefixTriePathsTest, InternalRecursionsAnswerAsThePairsOfQueriesDo) {
    add("a");
    EXPECT_TRUE(trie->hasPrefixInternal("a", false));
    EXPECT_FALSE(trie->hasPrefixInternal("a", true));
    EXPECT_TRUE(trie->hasPrefixInternal("a/b", true));
    EXPECT_EQ(trie->enclosingPrefixInternal("a", false), "a");
    EXPECT_EQ(trie->enclosingPrefixInternal("a", true), "");
    EXPECT_EQ(trie->enclosingPrefixInternal("a/b", true), "a");
}

TEST_F(PrefixTriePathsTest, AnyNodeAnswersAboutWhatIsBelowIt) {
    add("a/b.c");
    auto const a = nodeAt({"a"});
    EXPECT_TRUE(a->isPrefix("/b.c"));
    EXPECT_FALSE(a->isPrefix("b.c"));
    EXPECT_EQ(a->enclosingPrefix("/b.c.d"), "/b.c");
}

TEST_F(PrefixTriePathsTest, QueriesAllocateNothing) {
    if (!ALLOCATIONS_ARE_COUNTED) GTEST_SKIP() << "the allocator is the sanitizer's";
    for (char const* path : {"a/b.c", "a*/d", "a", "x/y", "x/y/z"}) add(path);
    auto const answer = [&] {
        for (std::string_view const path : {"a/b.c", "a*/b.c/d", "a/none", "none", "", "x*/y*/z", "*"}) {
            (void)trie->isPrefix(path);
            (void)trie->isLeaf(path);
            (void)trie->hasPrefix(path);
            (void)trie->hasProperPrefix(path);
            (void)trie->prefixState(path);
            (void)trie->child(path);
            (void)trie->childExists(path);
        }
        (void)trie->enclosingPrefix("none/at.all");
    };
    EXPECT_EQ(allocationsOf(answer), 0u);
    EXPECT_EQ(allocationsOf([&] { (void)trie->enclosingPrefix("a*/b.c/d"); }), 1u);  // its result
}

TEST_F(PrefixTriePathsTest, QueriesChangeNothing) {
    add("a/b");
    takeCalls();
    auto const states = TrieTest::liveStates();
    for (char const* path : {"a", "a/b", "a/b/c", "x/y"}) (void)answers(path);
    EXPECT_EQ(takeCalls(), Strings());
    EXPECT_EQ(nodes(), "a(/b*+)");
    EXPECT_EQ(TrieTest::liveStates(), states);
}

// --- long paths ---

// Recursion through overridden operations needs room on the stack, of which a sanitizer takes several times as much.
constexpr unsigned longPath = ALLOCATIONS_ARE_COUNTED ? 10000 : 2000;

TEST_F(PrefixTriePathsTest, PathOfTenThousandComponentsIsAddedAskedAndDeleted) {
    hooks.recording = false;
    std::string const path = pathOf(longPath);
    add(path, {"deep"});
    EXPECT_EQ(TrieTest::liveNodes(), longPath + 1);
    EXPECT_EQ(answers(path), "plh " + path + "  s");
    add("/a", {"top"});  // pushed down through all of them
    EXPECT_EQ(static_cast<State&>(*trie->prefixState(path)).tags, (TrieTest::Tags{"deep", "top"}));
    EXPECT_EQ(trie->properEnclosingPrefix(path), "/a");
    trie->prefixDel(path);
    EXPECT_EQ(shape(), "/a*+");
    trie->prefixDel("/a");
    EXPECT_EQ(shape(), "");
    EXPECT_EQ(TrieTest::liveNodes(), longPath + 1);  // in prefixChild
}

TEST_F(PrefixTriePathsTest, PathOfTenThousandComponentsIsAddedToATrieThatLeavesPathsToTheBase) {
    std::string const path = pathOf(10000, "/a*");
    Ptr<Node> plain = TrieTest::Plain::newEntity("plain");
    addTo(*plain, path + "/x", {"deep"});
    EXPECT_EQ(plain->enclosingPrefix(path + "/x/y"), pathOf(10000) + "/x");
    hooks.prunedAreDestroyed = true;
    plain->prefixDel(path + "/x");
    EXPECT_EQ(TrieTest::liveNodes(), 2u);
}

TEST_F(PrefixTriePathsTest, TrieOfTenThousandLevelsIsAppendedAndDestroyed) {
    hooks.recording = false;
    std::string const path = pathOf(longPath);
    auto const other = trieOf({path});
    trie->append(other);
    EXPECT_TRUE(trie->isPrefix(path));
    EXPECT_EQ(TrieTest::liveNodes(), 2 * longPath + 2);
    trie->emptyIs(true);
    EXPECT_EQ(TrieTest::liveNodes(), longPath + 2);
}

TEST_F(PrefixTriePathsTest, PathOfAMillionComponentsIsAskedAndDeletedInAShortTrie) {
    std::string const path = pathOf(1000000, "/a*");
    add("/a/a/a");
    EXPECT_EQ(answers(path), "hr /a/a/a /a/a/a");
    trie->prefixDel(path);
    EXPECT_EQ(shape(), "/a(/a(/a*+))");
    EXPECT_EQ(TrieTest::liveNodes(), 4u);
}

TEST_F(PrefixTriePathsTest, NodeThatIsBelowItselfLetsAPathOfAMillionComponentsBeWalked) {
    auto const a = trie->newChildIs("/a");
    a->childIs(a);  // the cheapest trie of any depth
    EXPECT_FALSE(trie->isPrefix(pathOf(1000000)));
    a->presentIs(true);
    EXPECT_TRUE(trie->isPrefix(pathOf(1000000)));
    EXPECT_EQ(trie->enclosingPrefix(pathOf(1000000)).length(), 2000000u);
    a->childDel("/a");
}

TEST_F(PrefixTriePathsTest, TrieOfAHundredThousandLevelsIsDestroyedWithoutRecursion) {
    Ptr<Node> at = trie;
    for (int i = 0; i < 100000; ++i) at = at->newChildIs("/a");
    at->presentIs(true);
    at = nullptr;
    hooks.recording = false;
    std::string const path = pathOf(100000);
    EXPECT_TRUE(trie->isPrefix(path));
    trie->prefixDel(path);
    EXPECT_EQ(shape(), "");
    trie = nullptr;
    EXPECT_EQ(TrieTest::liveNodes(), 0u);
}

}  // namespace
