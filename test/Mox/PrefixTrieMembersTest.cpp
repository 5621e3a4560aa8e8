#include "PrefixTrieTest.h"

#include "Vel/base/Exception.h"

// The two collections of a node.
namespace {

using Mox::PrefixTrie;
using Vel::Ptr;

class PrefixTrieMembersTest : public PrefixTrieTest {};

TEST_F(PrefixTrieMembersTest, MemberOfTheSameNameIsReplaced) {
    auto const first = Trie::newEntity("a");
    auto const second = Trie::newEntity("a");
    trie->childIs(first);
    trie->childIs(second);
    EXPECT_EQ(trie->child("a"), second);
    EXPECT_EQ(trie->children(), 1u);
    EXPECT_EQ(first->references(), 1u);
    EXPECT_EQ(second->references(), 2u);
    EXPECT_EQ(second->parent(), nullptr);  // only prefixChild gives one
}

TEST_F(PrefixTrieMembersTest, CollectionsMayHoldDifferentNodesOfOneName) {
    auto const own = trie->prefixChildIs("a");
    Ptr<Node> const other = Trie::newEntity("a");
    trie->childIs(other);
    EXPECT_EQ(trie->prefixChild("a"), own);
    EXPECT_EQ(trie->child("a"), other);
    EXPECT_EQ(trie->newChildIs("a"), own);  // which takes the other's place
    EXPECT_EQ(trie->child("a"), own);
    EXPECT_EQ(other->references(), 1u);
}

TEST_F(PrefixTrieMembersTest, PrefixChildIsFindsOrMakesAPlainNode) {
    auto const made = trie->prefixChildIs("a");
    EXPECT_EQ(made->fwkType(), Vel::typeOf<PrefixTrie>());
    EXPECT_TRUE(made->hasNotificationActive());
    EXPECT_EQ(made->parent(), trie.get());
    EXPECT_EQ(trie->prefixChildIs("a"), made);
    EXPECT_EQ(trie->prefixChildren(), 1u);
    EXPECT_TRUE(trie->empty());  // which asks `child` only
    EXPECT_TRUE(trie->prefixChildExists("a"));
    EXPECT_FALSE(trie->childExists("a"));
}

TEST_F(PrefixTrieMembersTest, BaseNewChildIsMakesABaseNodeInBoth) {
    auto const base = Mox::prefixTrieFactory("base");
    auto const made = base->newChildIs("a");
    EXPECT_EQ(made->fwkType(), Vel::typeOf<PrefixTrie>());
    EXPECT_EQ(base->child("a"), made);
    EXPECT_EQ(base->prefixChild("a"), made);
    EXPECT_EQ(base->newChildIs("a"), made);
    base->childDel("a");
    EXPECT_EQ(base->newChildIs("a"), made);
    EXPECT_EQ(base->child("a"), made);
}

TEST_F(PrefixTrieMembersTest, RemovedMembersAreReturned) {
    auto const made = trie->newChildIs("a");
    EXPECT_EQ(trie->childDel("a"), made);
    EXPECT_EQ(trie->childDel("a"), nullptr);
    EXPECT_EQ(made->parent(), trie.get());
    EXPECT_EQ(trie->prefixChildDel("a"), made);
    EXPECT_EQ(trie->prefixChildDel("a"), nullptr);
    EXPECT_EQ(made->parent(), nullptr);
    EXPECT_EQ(made->references(), 1u);
}

TEST_F(PrefixTrieMembersTest, MemberThatAnotherTrieHasTakenOverStaysThere) {
    class Adopting : public Trie {
    public:
        using Trie::Trie;
        void adopt(Ptr<Node> const& node) { velPrefixChildIs(node); }
    };
    Ptr<Adopting> const first(new Adopting("first"));
    Ptr<Adopting> const second(new Adopting("second"));
    auto const member = Trie::newEntity("a");
    first->adopt(member);
    second->adopt(member);
    EXPECT_EQ(first->prefixChildDel("a"), member);
    EXPECT_EQ(member->parent(), second.get());
}

TEST_F(PrefixTrieMembersTest, DelAllRemovesEveryMemberOfItsCollection) {
    for (char const* key : {"a", "b", "c", "d", "e", "f", "g", "h", "i"}) trie->newChildIs(key);
    auto const a = trie->child("a");
    trie->childDelAll();
    EXPECT_EQ(trie->children(), 0u);
    EXPECT_EQ(trie->prefixChildren(), 9u);
    trie->prefixChildDelAll();
    EXPECT_EQ(trie->prefixChildren(), 0u);
    EXPECT_EQ(a->parent(), nullptr);
    EXPECT_EQ(TrieTest::liveNodes(), 2u);
}

TEST_F(PrefixTrieMembersTest, ChangeCounterMovesWithEveryChangeOfACollection) {
    auto const made = trie->newChildIs("a");
    EXPECT_EQ(trie->childChangeCounter(), 2u);
    trie->childIs(made);
    trie->newChildIs("a");
    trie->childDel("x");
    EXPECT_EQ(trie->childChangeCounter(), 2u);
    trie->childDel("a");
    EXPECT_EQ(trie->childChangeCounter(), 3u);
    trie->prefixChildDel("a");
    EXPECT_EQ(trie->prefixChildChangeCounter(), 4u);
}

TEST_F(PrefixTrieMembersTest, RangeVisitsMembersThatAreStillThere) {
    for (char const* key : {"a", "b", "c", "d"}) trie->newChildIs(key);
    Strings visited;
    for (Ptr<Node> const member : trie->childMembers()) {
        visited.push_back(member->name().stdString());
        trie->childDel(member->name());
        trie->newChildIs("new " + member->name().stdString());
        for (char const* key : {"a", "b", "c", "d"})
            if (trie->childExists(key) && visited.size() == 1) {
                trie->childDel(key);  // whose turn has not come
                break;
            }
    }
    EXPECT_EQ(visited.size(), 3u);
    EXPECT_EQ(trie->childMembers().size(), 3u);
    EXPECT_FALSE(trie->childMembers().empty());
    EXPECT_TRUE(Mox::prefixTrieFactory("x")->childMembers().empty());
}

TEST_F(PrefixTrieMembersTest, NullPointersAreRefused) {
    try {
        trie->childIs(nullptr);
        ADD_FAILURE() << "nothing was thrown";
    } catch (Vel::MutatorArgNullPointerException const& error) {
        EXPECT_STREQ(error.what(), "TrieTest::Trie.child (attribute 261) takes no null pointer");
    }
    EXPECT_THROW(trie->prefixIs("a", nullptr), Vel::MutatorArgNullPointerException);
    EXPECT_THROW(trie->append(nullptr), Vel::MutatorArgNullPointerException);
    EXPECT_THROW(trie->appendInternal(nullptr, stateOf("s")), Vel::MutatorArgNullPointerException);
    EXPECT_EQ(nodes(), "");
    EXPECT_EQ(trie->childChangeCounter(), 0u);
}

}  // namespace
