#include "PrefixTrieTest.h"
#include "SetTest.h"

// Merging one trie into another.
namespace {

using TrieTest::labelOf;
using TrieTest::Tags;
using Vel::Ptr;

class PrefixTrieAppendTest : public PrefixTrieTest {
protected:
    void addOther(std::string_view path, Tags const& tags = {}) { addTo(*other, path, tags); }
    Tags tagsAt(std::string_view path) const {
        auto const state = trie->prefixState(path);
        return state ? static_cast<State const&>(*state).tags : Tags{"null"};
    }

    Vel::Ptr<Node> other = Trie::newEntity("other");
};

TEST_F(PrefixTrieAppendTest, EmptyTriePushesAFreshStateDownAndChangesNothingElse) {
    add("a", {"a"});
    add("b/c", {"c"});
    hooks.freshTags = {"fresh"};
    takeCalls();
    trie->append(other);
    auto calls = takeCalls();
    ASSERT_EQ(calls.size(), 7u);
    EXPECT_EQ(calls[0], "append other to root");
    EXPECT_EQ(calls[1], "newStateIs of root");
    std::sort(calls.begin() + 2, calls.end());  // the order of the children carries no meaning
    EXPECT_EQ(calls, (Strings{
                         "append other to root",
                         "newStateIs of root",
                         "/c#1.upgradeState(root#1, inherited) changed",
                         "a#1.upgradeState(root#1, inherited) changed",
                         "upgradeState of /c with root#1 inherited",
                         "upgradeState of a with root#1 inherited",
                         "upgradeState of b with root#1 inherited",
                     }));
    EXPECT_EQ(shape(), "a*+ b(/c*+)");
    EXPECT_EQ(tagsAt("a"), (Tags{"a", "fresh"}));
    EXPECT_EQ(trie->state(), nullptr);
}

TEST_F(PrefixTrieAppendTest, PrefixBelowIsMadeAndInheritsBeforeItsOwnStateIsMerged) {
    add("a", {"a"});
    addOther("a/b", {"b"});
    takeCalls();
    trie->append(other);
    EXPECT_EQ(takeCalls(), (Strings{
                               "append other to root",
                               "newStateIs of root",
                               "newChildIs a in root",
                               "a#1.upgradeState(root#1, inherited) same",
                               "a#1.upgradeState(a#1, given) same",  // the other's inner node has a state too
                               "newChildIs /b in a",
                               "newStateIs of /b",
                               "/b#1.upgradeState(a#1, inherited) changed",
                               "/b#1.upgradeState(/b#1, given) changed",
                           }));
    EXPECT_EQ(shape(), "a*+(/b*+)");
    EXPECT_EQ(tagsAt("a/b"), (Tags{"a", "b"}));
    EXPECT_NE(trie->prefixState("a/b"), other->prefixState("a/b"));
}

TEST_F(PrefixTrieAppendTest, PrefixAboveBecomesPresentAndIsInheritedByWhatOnlyThisTrieHas) {
    add("a/b", {"b"});
    addOther("a", {"a"});
    nodeAt({"a"})->stateIs(nullptr);
    takeCalls();
    trie->append(other);
    EXPECT_EQ(takeCalls(), (Strings{
                               "append other to root",
                               "newStateIs of root",
                               "newChildIs a in root",
                               "newStateIs of a",
                               "a#2.upgradeState(root#1, inherited) same",
                               "a#2.upgradeState(a#1, given) changed",
                               "upgradeState of /b with a#2 inherited",
                               "/b#1.upgradeState(a#2, inherited) changed",
                           }));
    EXPECT_EQ(shape(), "a*+(/b*+)");
    EXPECT_EQ(tagsAt("a/b"), (Tags{"a", "b"}));
}

TEST_F(PrefixTrieAppendTest, ChildrenOfAnUnchangedNodeAreSpared) {
    add("a", {"a"});
    add("a/b", {"b"});
    addOther("a", {"a"});
    takeCalls();
    trie->append(other);
    EXPECT_EQ(takeMerges(), (Strings{"a#1.upgradeState(root#1, inherited) same", "a#1.upgradeState(a#1, given) same"}));
}

TEST_F(PrefixTrieAppendTest, BothMergesOfANodeAreMadeAndEitherChangeCounts) {
    hooks.freshTags = {"fresh"};
    add("a", {"a"});
    add("a/b");
    hooks.freshTags = {"newer"};
    addOther("a", {"newer"});
    takeCalls();
    trie->append(other);  // the first of the merges changes
    EXPECT_EQ(takeMerges(), (Strings{"a#1.upgradeState(root#1, inherited) changed", "a#1.upgradeState(a#1, given) same",
                                "/b#1.upgradeState(a#1, inherited) changed"}));
}

TEST_F(PrefixTrieAppendTest, OthersNodesAreMergedEvenBelowAnUnchangedNode) {
    add("a", {"a"});
    add("a/b", {"b"});
    addOther("a", {"a"});
    addOther("a/c", {"c"});
    trie->append(other);
    EXPECT_EQ(shape(), "a*+(/b*+ /c*+)");
    EXPECT_EQ(tagsAt("a/c"), (Tags{"a", "c"}));
}

TEST_F(PrefixTrieAppendTest, ChildThatBothHaveIsMergedOnceAndNotPushedTo) {
    add("a/b", {"b"});
    addOther("a/b", {"other"});
    takeCalls();
    trie->append(other);
    EXPECT_EQ(
        takeMerges(), (Strings{"/b#1.upgradeState(root#1, inherited) same", "/b#1.upgradeState(/b#1, given) changed"}));
    EXPECT_EQ(tagsAt("a/b"), (Tags{"b", "other"}));
}

TEST_F(PrefixTrieAppendTest, NodesThatStayInnerHaveNoState) {
    addOther("a*/b/c", {"c"});
    trie->append(other);
    EXPECT_EQ(shape(), "a*(/b(/c*+))");
    EXPECT_EQ(nodeAt({"a"})->state(), nullptr);
    EXPECT_EQ(nodeAt({"a", "/b"})->state(), nullptr);
    EXPECT_EQ(tagsAt("a/b/c"), Tags{"c"});
    add("a/b/d");  // gives them one
    EXPECT_EQ(labelOf(nodeAt({"a", "/b"})->state()), "/b#1");
}

TEST_F(PrefixTrieAppendTest, PresentNodeOfTheOtherWithoutAStateIsMerged) {
    other->newChildIs("a")->presentIs(true);
    takeCalls();
    trie->append(other);
    EXPECT_EQ(takeMerges(), Strings{"a#1.upgradeState(root#1, inherited) same"});
    EXPECT_EQ(shape(), "a+");
}

TEST_F(PrefixTrieAppendTest, FlagsAreUnitedAndNeverCleared) {
    for (unsigned mine = 0; mine < 4; ++mine)
        for (unsigned theirs = 0; theirs < 4; ++theirs) {
            Ptr<Node> const to = Trie::newEntity("to");
            Ptr<Node> const from = Trie::newEntity("from");
            auto const set = [](Node& root, unsigned flags) {
                auto const a = root.newChildIs("a");
                a->stateIs(stateOf("s"));
                a->mountPointIs(flags & 1);
                a->presentIs(flags & 2);
            };
            set(*to, mine);
            set(*from, theirs);
            to->append(from);
            EXPECT_EQ(to->child("a")->mountPoint(), bool((mine | theirs) & 1)) << mine << " " << theirs;
            EXPECT_EQ(to->child("a")->present(), bool((mine | theirs) & 2)) << mine << " " << theirs;
            EXPECT_EQ(from->child("a")->present(), bool(theirs & 2));
        }
}

TEST_F(PrefixTrieAppendTest, RootTakesOnTheOthersFlagsAndState) {
    add("x", {"x"});
    other->presentIs(true);
    other->mountPointIs(true);
    other->stateIs(stateOf("given", {"g"}));
    takeCalls();
    trie->append(other);
    EXPECT_EQ(
        takeCalls(), (Strings{"append other to root", "newStateIs of root", "newStateIs of root",
                         "root#2.upgradeState(root#1, inherited) same", "root#2.upgradeState(given, given) changed",
                         "upgradeState of x with root#2 inherited", "x#1.upgradeState(root#2, inherited) changed"}));
    EXPECT_TRUE(trie->present());
    EXPECT_TRUE(trie->mountPoint());
    EXPECT_EQ(tagsAt("x"), (Tags{"g", "x"}));
}

TEST_F(PrefixTrieAppendTest, OtherTrieIsOnlyRead) {
    add("a/b", {"b"});
    add("x", {"x"});
    addOther("a", {"a"});
    addOther("c/d", {"d"});
    auto const stateOfA = other->prefixState("a");
    auto const live = TrieTest::liveNodes();
    observe(*other);
    observe(*other->child("a"));
    trie->append(other);
    EXPECT_EQ(takeNotified(), Strings());
    EXPECT_EQ(shapeOf(*other), "a*+ c(/d*+)");
    EXPECT_EQ(other->prefixState("a"), stateOfA);
    EXPECT_EQ(static_cast<State&>(*stateOfA).tags, Tags{"a"});
    EXPECT_EQ(TrieTest::liveNodes(), live + 2);
    EXPECT_NE(trie->child("a"), other->child("a"));
}

TEST_F(PrefixTrieAppendTest, PrunedNodesOfTheOtherAreNotMerged) {
    addOther("a/b");
    other->prefixDel("a/b");
    trie->append(other);
    EXPECT_EQ(nodes(), "");
}

TEST_F(PrefixTrieAppendTest, OwnPrunedNodeIsUsedAgainAsItWas) {
    add("a*/b", {"old"});
    trie->prefixDel("a/b");
    addOther("a/b/c", {"c"});
    trie->append(other);
    EXPECT_EQ(shape(), "a*(/b*+(/c*+))");
    EXPECT_EQ(tagsAt("a/b/c"), (Tags{"c", "old"}));
}

TEST_F(PrefixTrieAppendTest, CopiesAreOfThisTriesOwnType) {
    addOther("a/b", {"b"});
    Ptr<Node> const plain = TrieTest::Plain::newEntity("plain");
    plain->append(other);
    EXPECT_EQ(plain->child("a")->fwkType(), Vel::typeOf<TrieTest::Plain>());
    EXPECT_EQ(plain->child("a")->child("/b")->fwkType(), Vel::typeOf<TrieTest::Plain>());
}

TEST_F(PrefixTrieAppendTest, AppendingATrieToItselfChangesNothing) {
    add("a/b", {"b"});
    add("a", {"a"});
    trie->append(trie);
    EXPECT_EQ(shape(), "a*+(/b*+)");
    EXPECT_EQ(tagsAt("a/b"), (Tags{"a", "b"}));
}

TEST_F(PrefixTrieAppendTest, AppendInternalHandsOnTheStateThatItIsGiven) {
    add("a", {"a"});
    addOther("b", {"b"});
    trie->appendInternal(other, stateOf("s", {"s"}));
    EXPECT_EQ(tagsAt("a"), (Tags{"a", "s"}));
    EXPECT_EQ(tagsAt("b"), (Tags{"b", "s"}));
}

TEST_F(PrefixTrieAppendTest, HookMayEmptyTheTrieThatIsMerged) {
    for (std::string const at :
        {"newStateIs of root", "newChildIs a in root", "a#1.upgradeState(root", "a#1.upgradeState(a#1, given",
            "upgradeState of /b", "newChildIs /c in a", "/c#1.upgradeState(a#1", "/c#1.upgradeState(/c#1"}) {
        trie = Trie::newEntity("root");
        add("a", {"a"});
        add("a/b");
        other = Trie::newEntity("other");
        addOther("a", {"o"});
        addOther("a/c", {"c"});
        hooks.before = [&](std::string const& call) {
            if (!call.starts_with(at)) return;
            hooks.before = nullptr;
            nodeAt({"a"})->emptyIs(true);
            trie->emptyIs(true);
        };
        trie->append(other);
        EXPECT_FALSE(hooks.before) << at;
        trie->emptyIs(true);
        EXPECT_EQ(TrieTest::liveNodes(), 1u + 3u) << at;
    }
}

}  // namespace
