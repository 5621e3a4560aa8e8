#include "PrefixTrieTest.h"
#include "SetTest.h"

// How states are inherited and pushed down, and in which order the hooks are called.
namespace {

using TrieTest::labelOf;
using TrieTest::Tags;
using Vel::Ptr;

class PrefixTrieStateTest : public PrefixTrieTest {
protected:
    Tags tagsAt(std::string_view path) const {
        auto const state = trie->prefixState(path);
        return state ? static_cast<State const&>(*state).tags : Tags{"null"};
    }
};

// --- what the hooks are called with ---

TEST_F(PrefixTrieStateTest, AddingAPathCallsTheHooksInThisOrder) {
    trie->prefixIs("a*/b", stateOf("s", {"x"}));
    EXPECT_EQ(takeCalls(), (Strings{
                               "prefixIs a*/b in root with s",
                               "newChildIs a in root",
                               "newStateIs of a",
                               "s.upgradeState(a#1, inherited) same",
                               "prefixIs /b in a with s",
                               "newChildIs /b in a",
                               "newStateIs of /b",
                               "upgradeState of /b with s given",
                               "/b#1.upgradeState(s, given) changed",
                           }));
}

TEST_F(PrefixTrieStateTest, AddingAboveAndBelowCallsTheHooksInThisOrder) {
    add("a/b");
    add("a/b/c/d");
    takeCalls();
    trie->prefixIs("a/b", stateOf("s", {"x"}));
    EXPECT_EQ(takeCalls(), (Strings{
                               "prefixIs a/b in root with s",
                               "newChildIs a in root",
                               "s.upgradeState(a#1, inherited) same",
                               "prefixIs /b in a with s",
                               "newChildIs /b in a",
                               "upgradeState of /b with s given",
                               "/b#1.upgradeState(s, given) changed",
                               "upgradeState of /c with /b#1 inherited",  // not present: hands it on
                               "upgradeState of /d with /b#1 inherited",
                               "/d#1.upgradeState(/b#1, inherited) changed",
                           }));
}

TEST_F(PrefixTrieStateTest, DeletingAPathCallsTheHooksInThisOrder) {
    add("a/b/c");
    add("a/b");
    takeCalls();
    trie->prefixDel("a/b");
    EXPECT_EQ(takeCalls(), Strings{"newStateIs of /b"});
    trie->prefixDel("a/b/c");
    EXPECT_EQ(
        takeCalls(), (Strings{"childInstanceDel /c in /b", "childInstanceDel /b in a", "childInstanceDel a in root"}));
}

TEST_F(PrefixTrieStateTest, HookSeesThePrunedNodeOutOfChildAndInPrefixChild) {
    add("a/b");
    unsigned seen = 0;
    hooks.before = [&](std::string const& call) {
        if (call != "childInstanceDel /b in a") return;
        ++seen;
        auto const a = trie->child("a");
        ASSERT_TRUE(a);
        EXPECT_FALSE(a->childExists("/b"));
        EXPECT_TRUE(a->prefixChildExists("/b"));
    };
    trie->prefixDel("a/b");
    EXPECT_EQ(seen, 1u);
}

// --- inheriting ---

TEST_F(PrefixTrieStateTest, StateThatIsAddedTakesOnWhatEnclosesIt) {
    add("a", {"a"});
    auto const given = stateOf("s", {"c"});
    trie->prefixIs("a/b/c", given);
    EXPECT_EQ(tagsAt("a/b/c"), (Tags{"a", "c"}));
    EXPECT_EQ(given->tags, (Tags{"a", "c"}));
    EXPECT_EQ(tagsOf(*nodeAt({"a", "/b"})), Tags());
    EXPECT_EQ(tagsAt("a"), Tags{"a"});
}

TEST_F(PrefixTrieStateTest, GivenStateIsMergedAndNotStored) {
    auto const given = stateOf("s", {"x"});
    trie->prefixIs("a", given);
    EXPECT_NE(trie->prefixState("a"), given);
    EXPECT_EQ(tagsAt("a"), Tags{"x"});
    EXPECT_EQ(given->references(), 1u);
    given->tags.insert("later");
    EXPECT_EQ(tagsAt("a"), Tags{"x"});
}

TEST_F(PrefixTrieStateTest, AddingAboveIsInheritedBelow) {
    add("a/b/c", {"c"});
    add("a/d", {"d"});
    add("a", {"a"});
    EXPECT_EQ(tagsAt("a/b/c"), (Tags{"a", "c"}));
    EXPECT_EQ(tagsAt("a/d"), (Tags{"a", "d"}));
    EXPECT_EQ(tagsOf(*nodeAt({"a", "/b"})), Tags());  // an inner node takes nothing
}

TEST_F(PrefixTrieStateTest, SubtreeOfAStateThatDidNotChangeIsNotVisited) {
    add("a/b", {"b"});
    add("a/b/c", {"c"});
    add("a/x/y", {"y"});
    takeCalls();
    trie->prefixIs("a", stateOf("s", {"b"}));
    EXPECT_EQ(takeCalls("upgradeState of /b"), Strings{"upgradeState of /b with a#1 inherited"});
    trie->prefixIs("a", stateOf("s", {"b"}));
    EXPECT_EQ(takeCalls("upgradeState of"), Strings{"upgradeState of a with s given"});
}

TEST_F(PrefixTrieStateTest, ResultAloneDecidesWhetherTheSubtreeIsVisited) {
    add("a/b", {"b"});
    add("a/b/c", {"c"});
    add("a");
    hooks.answer = true;
    takeCalls();
    add("a");
    EXPECT_EQ(
        takeMerges(), (Strings{"a#1.upgradeState(new, given) changed", "/b#1.upgradeState(a#1, inherited) changed",
                          "/c#1.upgradeState(/b#1, inherited) changed"}));
    hooks.answer = false;
    add("a", {"new"});
    EXPECT_EQ(takeMerges(), Strings{"a#1.upgradeState(new, given) same"});
    EXPECT_EQ(tagsAt("a"), Tags{"new"});
    EXPECT_EQ(tagsAt("a/b"), Tags{"b"});
}

TEST_F(PrefixTrieStateTest, PushDownHandsOnTheMergedStateOfAPresentNode) {
    add("a/b", {"b"});
    add("a/b/c");
    takeCalls();
    trie->upgradeState(stateOf("s", {"x"}), false);  // below the first level always inherited
    EXPECT_EQ(takeMerges(),
        (Strings{"/b#1.upgradeState(s, inherited) changed", "/c#1.upgradeState(/b#1, inherited) changed"}));
    EXPECT_EQ(tagsAt("a/b/c"), (Tags{"b", "x"}));
}

TEST_F(PrefixTrieStateTest, AddingAPrefixTwiceMergesTwice) {
    add("a", {"x"});
    takeCalls();
    add("a", {"x"});
    EXPECT_EQ(takeCalls(), (Strings{"prefixIs a in root with new", "newChildIs a in root",
                               "upgradeState of a with new given", "a#1.upgradeState(new, given) same"}));
}

TEST_F(PrefixTrieStateTest, InnerNodesFreshStateReachesTheStateThatIsAdded) {
    hooks.freshTags = {"fresh"};
    auto const given = stateOf("s");
    trie->prefixIs("a", given);
    EXPECT_EQ(given->tags, Tags());  // the last node's own does not
    trie->prefixIs("a/b", given);
    EXPECT_EQ(given->tags, Tags{"fresh"});
}

TEST_F(PrefixTrieStateTest, NodeWithoutAStateGetsOneFromItself) {
    auto const a = trie->newChildIs("a");
    a->stateIs(nullptr);
    add("a/b");
    EXPECT_EQ(labelOf(a->state()), "a#1");
    add("a/b");
    EXPECT_EQ(labelOf(a->state()), "a#1");
}

TEST_F(PrefixTrieStateTest, DeletingAPrefixWithChildrenLeavesThemWhatTheyHave) {
    add("a", {"a"});
    add("a/b", {"b"});
    takeCalls();
    trie->prefixDel("a");
    EXPECT_EQ(takeMerges(), Strings());
    EXPECT_EQ(trie->prefixState("a"), nullptr);
    EXPECT_EQ(labelOf(nodeAt({"a"})->state()), "a#2");
    EXPECT_EQ(tagsAt("a/b"), (Tags{"a", "b"}));
    add("a", {"new"});
    EXPECT_EQ(tagsAt("a"), Tags{"new"});
    EXPECT_EQ(labelOf(nodeAt({"a"})->state()), "a#2");
}

TEST_F(PrefixTrieStateTest, LateCallerSeesWhatItsStateAbsorbed) {
    add("a", {"a"});
    add("b", {"b"});
    auto const given = stateOf("s");
    trie->prefixIs("a/x", given);
    trie->prefixIs("b/x", given);
    EXPECT_EQ(tagsAt("b/x"), (Tags{"a", "b"}));
}

// --- hooks that are missing ---

TEST_F(PrefixTrieStateTest, BaseHooksAbort) {
    auto const aborts = [](std::string const& name, std::string const& function) {
        return failure(
            "", "false && \"Need to implement " + name + " in a derived class\"", "/src/Mox/PrefixTrie", 0, function);
    };
    Ptr<Mox::PrefixTrieState> const state = Mox::prefixTrieStateFactory();
    EXPECT_ABORT(state->upgradeState(state, true),
        aborts("upgradeState",
            "virtual bool Mox::PrefixTrieState::upgradeState(const Vel::Ptr<Mox::PrefixTrieState>&, bool)"));
    EXPECT_ABORT(state->outputForm(), aborts("outputForm", "virtual Vel::String Mox::PrefixTrieState::outputForm()"));
    auto const newState = aborts("newStateIs", "virtual Vel::Ptr<Mox::PrefixTrieState> Mox::PrefixTrie::newStateIs()");
    auto const base = Mox::prefixTrieFactory("base");
    EXPECT_ABORT(base->newStateIs(), newState);
    EXPECT_ABORT(base->prefixIs("a", stateOf("s")), newState);
    EXPECT_ABORT(base->append(base), newState);
}

TEST_F(PrefixTrieStateTest, PresentNodeWithoutAStateIsABrokenPrecondition) {
    trie->newChildIs("a")->presentIs(true);
    EXPECT_ABORT(trie->upgradeState(stateOf("s"), true),
        failure("", "state()", "/src/Mox/PrefixTrie", 0,
            "virtual void Mox::PrefixTrie::upgradeState(const Vel::Ptr<Mox::PrefixTrieState>&, bool)"));
}

// --- hooks that change the trie that is being walked ---

TEST_F(PrefixTrieStateTest, ChildMayBeDeletedWhileItIsVisited) {
    hooks.prunedAreDestroyed = true;
    for (char const* path : {"a/b", "a/c", "a/d/e", "a"}) add(path);
    takeCalls();
    hooks.before = [&](std::string const& call) {
        for (char const* key : {"/b", "/c"})
            if (call.starts_with("upgradeState of " + std::string(key))) trie->prefixDel("a" + std::string(key));
    };
    trie->prefixIs("a", stateOf("s", {"x"}));
    EXPECT_EQ(shape(), "a*+(/d(/e*+))");
    EXPECT_EQ(tagsAt("a/d/e"), Tags{"x"});
}

TEST_F(PrefixTrieStateTest, SiblingsThatGoBeforeTheirTurnAreNotVisited) {
    for (char const* path : {"a/b", "a/c", "a/d", "a"}) add(path);
    takeCalls();
    hooks.before = [&](std::string const& call) {
        if (!call.starts_with("upgradeState of /")) return;
        hooks.before = nullptr;
        nodeAt({"a"})->emptyIs(true);
    };
    trie->prefixIs("a", stateOf("s", {"x"}));
    EXPECT_EQ(takeCalls("upgradeState of /").size(), 1u);
    EXPECT_EQ(nodes(), "a");
}

TEST_F(PrefixTrieStateTest, WholeTrieMayBeEmptiedWhileAPrefixIsAdded) {
    for (std::string const at : {"s.upgradeState(a#", "prefixIs /b", "newStateIs of /b", "upgradeState of /b", "/b#"}) {
        takeCalls();
        hooks.before = [&](std::string const& call) {
            if (!call.starts_with(at)) return;
            hooks.before = nullptr;
            trie->emptyIs(true);
        };
        trie->prefixIs("a/b/c", stateOf("s", {"x"}));
        trie->prefixIs("a/b", stateOf("s", {"x"}));
        EXPECT_FALSE(hooks.before) << at;
        trie->emptyIs(true);
        EXPECT_EQ(TrieTest::liveNodes(), 1u) << at;
    }
}

TEST_F(PrefixTrieStateTest, StateThatIsTakenAwayWhileItMergesIsHandedOn) {
    add("a/b");
    add("a");
    takeCalls();
    hooks.before = [&](std::string const& call) {
        if (call.starts_with("a#1.upgradeState")) nodeAt({"a"})->stateIs(nullptr);
    };
    trie->prefixIs("a", stateOf("s", {"x"}));
    EXPECT_EQ(tagsAt("a/b"), Tags{"x"});
}

TEST_F(PrefixTrieStateTest, HookMayDeleteWhileAPathIsPruned) {
    hooks.before = [&](std::string const& call) {
        if (call.starts_with("childInstanceDel /b")) trie->emptyIs(true);
    };
    add("a/b/c");
    trie->prefixDel("a/b/c");
    EXPECT_EQ(nodes(), "");
    EXPECT_EQ(TrieTest::liveNodes(), 1u);
}

}  // namespace
