#include "PrefixTrieTest.h"

#include "Vel/base/Exception.h"

// What observers are told, and that they may change the trie meanwhile.
namespace {

using Vel::Ptr;

class PrefixTrieNotifyTest : public PrefixTrieTest {};

TEST_F(PrefixTrieNotifyTest, FlagsAndStateNotifyChangesOnly) {
    observe(*trie);
    trie->mountPointIs(false);
    trie->presentIs(false);
    trie->stateIs(nullptr);
    EXPECT_EQ(takeNotified(), Strings());
    auto const state = stateOf("s");
    for (int again = 0; again < 2; ++again) {
        trie->stateIs(state);
        trie->mountPointIs(true);
        trie->presentIs(true);
    }
    EXPECT_EQ(takeNotified(), (Strings{"root 258", "root 259", "root 260"}));
}

TEST_F(PrefixTrieNotifyTest, CollectionsNotifyTheirIdsWithTheKey) {
    observe(*trie);
    auto const a = trie->newChildIs("a");
    EXPECT_EQ(takeNotified(), (Strings{"root 262 a", "root 261 a"}));
    trie->newChildIs("a");
    trie->prefixChildIs("a");
    trie->childIs(a);  // is there already
    trie->childDel("x");
    trie->prefixChildDel("x");
    EXPECT_EQ(takeNotified(), Strings());
    trie->childDel("a");
    trie->prefixChildDel("a");
    EXPECT_EQ(takeNotified(), (Strings{"root 261 a", "root 262 a"}));
}

TEST_F(PrefixTrieNotifyTest, ReplacingAMemberNotifiesOnce) {
    trie->newChildIs("a");
    observe(*trie);
    trie->childIs(Trie::newEntity("a"));
    EXPECT_EQ(takeNotified(), Strings{"root 261 a"});
}

TEST_F(PrefixTrieNotifyTest, BaseNewChildIsNotifiesPrefixChildFirst) {
    auto const base = Mox::prefixTrieFactory("base");
    observe(*base);
    base->newChildIs("a");
    EXPECT_EQ(takeNotified(), (Strings{"base 262 a", "base 261 a"}));
    base->childDel("a");
    base->newChildIs("a");
    EXPECT_EQ(takeNotified(), (Strings{"base 261 a", "base 261 a"}));
}

TEST_F(PrefixTrieNotifyTest, AddingAPrefixNotifiesInTheOrderOfItsSteps) {
    auto const a = trie->newChildIs("a");
    auto const b = a->newChildIs("/b");
    observe(*trie);
    observe(*a);
    observe(*b);
    add("a*/b");
    EXPECT_EQ(takeNotified(), (Strings{"a 259", "a 258", "/b 259", "/b 258", "/b 260"}));
    add("a*/b");
    add("a/b");
    EXPECT_EQ(takeNotified(), Strings());
    add("a");
    EXPECT_EQ(takeNotified(), Strings{"a 260"});
    add("x");
    EXPECT_EQ(takeNotified(), (Strings{"root 262 x", "root 261 x"}));
}

TEST_F(PrefixTrieNotifyTest, DeletingAPrefixWithChildrenNotifiesItsFlagAndState) {
    add("a");
    add("a/b");
    observe(*trie);
    observe(*nodeAt({"a"}));
    trie->prefixDel("a");
    EXPECT_EQ(takeNotified(), (Strings{"a 260", "a 258"}));
    trie->prefixDel("a");  // a fresh state again
    EXPECT_EQ(takeNotified(), Strings{"a 258"});
}

TEST_F(PrefixTrieNotifyTest, PruningNotifiesChildOnlyFromTheBottomUp) {
    add("a/b");
    auto const b = nodeAt({"a", "/b"});
    observe(*trie);
    observe(*nodeAt({"a"}));
    observe(*b);
    trie->prefixDel("a/b");
    EXPECT_EQ(takeNotified(), (Strings{"a 261 /b", "root 261 a"}));
    trie->prefixDel("a/b");
    trie->prefixDel("");
    EXPECT_EQ(takeNotified(), Strings());
}

TEST_F(PrefixTrieNotifyTest, HookThatDestroysPrunedNodesNotifiesPrefixChildToo) {
    hooks.prunedAreDestroyed = true;
    add("a/b");
    observe(*trie);
    observe(*nodeAt({"a"}));
    trie->prefixDel("a/b");
    EXPECT_EQ(takeNotified(), (Strings{"a 261 /b", "a 262 /b", "root 261 a", "root 262 a"}));
}

TEST_F(PrefixTrieNotifyTest, EmptyingNotifiesWhatReallyChangesInOrder) {
    add("a*/b");
    auto const a = nodeAt({"a"});
    observe(*a);
    a->emptyIs(false);
    EXPECT_EQ(takeNotified(), Strings());
    a->emptyIs(true);
    EXPECT_EQ(takeNotified(), (Strings{"a 258", "a 259", "a 261 /b", "a 262 /b"}));
    a->emptyIs(true);
    EXPECT_EQ(takeNotified(), Strings());
    a->presentIs(true);
    takeNotified();
    a->emptyIs(true);
    EXPECT_EQ(takeNotified(), Strings{"a 260"});
}

TEST_F(PrefixTrieNotifyTest, AppendingNotifiesWhatReallyChanges) {
    add("a");
    auto const other = trieOf({"a*/b"});
    observe(*trie);
    observe(*nodeAt({"a"}));
    trie->append(other);
    EXPECT_EQ(takeNotified(), (Strings{"a 262 /b", "a 261 /b"}));
    trie->append(other);
    EXPECT_EQ(takeNotified(), Strings());
    trie->append(trieOf({"x/y"}));
    EXPECT_EQ(takeNotified(), (Strings{"root 262 x", "root 261 x"}));
}

TEST_F(PrefixTrieNotifyTest, MembersOfAnAppendedTrieNotifyFlagsThenState) {
    auto const a = trie->newChildIs("a");
    observe(*a);
    trie->append(trieOf({"a"}));
    EXPECT_EQ(takeNotified(), (Strings{"a 260", "a 259", "a 258"}));
}

TEST_F(PrefixTrieNotifyTest, QueriesAndPushDownsNotifyNobody) {
    add("a/b");
    observe(*trie);
    observe(*nodeAt({"a"}));
    observe(*nodeAt({"a", "/b"}));
    trie->upgradeState(stateOf("s", {"x"}), true);
    EXPECT_TRUE(trie->hasPrefix("a/b/c"));
    EXPECT_EQ(takeNotified(), Strings());
}

TEST_F(PrefixTrieNotifyTest, NotificationThatIsOffTellsNobody) {
    observe(*trie);
    trie->hasNotificationActiveIs(false);
    add("a/b");
    EXPECT_EQ(takeNotified(), Strings());
}

TEST_F(PrefixTrieNotifyTest, ObserverSeesTheTrieAsItIsAfterTheChange) {
    Strings seen;
    auto const notifiee = Vel::notifieeOf(*trie, [&](Vel::AttributeId id) {
        seen.push_back(std::to_string(id) + " " + std::to_string(trie->children()) +
                       std::to_string(trie->prefixChildren()) + std::to_string(trie->childChangeCounter()));
    });
    trie->newChildIs("a");
    trie->childDel("a");
    EXPECT_EQ(seen, (Strings{"262 011", "261 112", "261 013"}));
}

TEST_F(PrefixTrieNotifyTest, ObserverMayEmptyTheTrieAtAnyStepOfAnAddition) {
    for (unsigned step = 1; step <= 5; ++step) {
        unsigned told = 0;
        std::vector<std::unique_ptr<Vel::Notifiee>> notifiees;
        auto const tell = [&](Vel::AttributeId) {
            if (++told == step) trie->emptyIs(true);
        };
        auto const a = trie->newChildIs("a");
        auto const b = a->newChildIs("/b");
        for (Ptr<Node> const& node : {trie, a, b}) notifiees.push_back(Vel::notifieeOf(*node, tell));
        add("a*/b/c", {"x"});
        EXPECT_GE(told, step);
        trie->emptyIs(true);
    }
}

TEST_F(PrefixTrieNotifyTest, ObserverMayReleaseTheMemberThatItIsToldOf) {
    unsigned told = 0;
    auto const remove = Vel::notifieeOf(*trie, [&](Vel::AttributeId id, Vel::NotifieeKey const* key) {
        if (id != Node::childAttribute || told) return;
        ++told;
        Vel::String const name = key->as<Vel::String>();
        trie->childDel(name);
        trie->prefixChildDel(name);
    });
    observe(*trie);  // told afterwards, of a key that must still be valid
    add("a/b");
    EXPECT_EQ(told, 1u);
    EXPECT_EQ(shape(), "");
    EXPECT_EQ(takeNotified(), (Strings{"root 262 a", "root 261 a", "root 262 a", "root 261 a"}));
}

TEST_F(PrefixTrieNotifyTest, ObserverMayPutBackWhatIsPruned) {
    add("a/b");
    bool once = true;
    auto const putBack = Vel::notifieeOf(*nodeAt({"a"}), [&](Vel::AttributeId id) {
        if (id == Node::childAttribute && std::exchange(once, false)) add("a/c");
    });
    trie->prefixDel("a/b");
    EXPECT_EQ(shape(), "a(/c*+)");
}

TEST_F(PrefixTrieNotifyTest, HookMayAddNodesAboveTheOneThatIsPruned) {
    for (unsigned const more : {1u, 2u, 5u, 100u}) {
        add("a/b");
        hooks.before = [&](std::string const& call) {
            if (call != "childInstanceDel /b in a") return;
            hooks.before = nullptr;
            for (unsigned i = 0; i < more; ++i) add("x" + std::to_string(i));
        };
        trie->prefixDel("a/b");
        EXPECT_EQ(trie->child("a"), nullptr);
        EXPECT_EQ(trie->children(), more);
        trie->emptyIs(true);
    }
}

TEST_F(PrefixTrieNotifyTest, HookMayEmptyTheTrieWhileAPathIsDeleted) {
    for (std::string const at : {"/c", "/b", "a"}) {
        add("a/b/c");
        hooks.before = [&](std::string const& call) {
            if (!call.starts_with("childInstanceDel " + at)) return;
            hooks.before = nullptr;
            trie->emptyIs(true);
        };
        trie->prefixDel("a/b/c");
        EXPECT_FALSE(hooks.before);
        EXPECT_EQ(nodes(), "");
        EXPECT_EQ(TrieTest::liveNodes(), 1u);
    }
}

TEST_F(PrefixTrieNotifyTest, HandleParentIsCalledForEveryChangeOfTheParent) {
    class Watcher : public Trie {
    public:
        using Trie::Trie;
        void handleParent() override { parents.push_back(parent() ? parent()->name().stdString() : "none"); }
        void add(Ptr<Node> const& c) { velPrefixChildIs(c); }
        Strings parents;
    };
    Ptr<Watcher> const watcher(new Watcher("w"));
    Ptr<Watcher> parent(new Watcher("parent"));
    parent->add(watcher);
    parent->add(watcher);
    parent->add(Trie::newEntity("w"));  // takes its place
    EXPECT_EQ(watcher->parents, (Strings{"parent", "none"}));
    parent->add(watcher);
    parent = nullptr;
    EXPECT_EQ(watcher->parents, (Strings{"parent", "none", "parent", "none"}));
    EXPECT_THROW(watcher->add(nullptr), Vel::MutatorArgNullPointerException);
}

}  // namespace
