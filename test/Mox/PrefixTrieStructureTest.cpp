#include "Allocations.h"
#include "PrefixTrieTest.h"
#include "SetTest.h"

#include "Vel/base/Exception.h"
#include "Vel/entity/Dir.h"

// How a trie grows, shrinks and holds its nodes.
namespace {

using namespace std::string_literals;
using Mox::PrefixTrie;
using Vel::Ptr;

class PrefixTrieStructureTest : public PrefixTrieTest {};

// --- construction ---

TEST_F(PrefixTrieStructureTest, NewTrieHasItsNameAndNothingElse) {
    auto const made = Mox::prefixTrieFactory("new");
    EXPECT_EQ(made->name(), "new");
    EXPECT_EQ(made->state(), nullptr);
    EXPECT_FALSE(made->mountPoint());
    EXPECT_FALSE(made->present());
    EXPECT_TRUE(made->empty());
    EXPECT_EQ(made->children(), 0u);
    EXPECT_EQ(made->prefixChildren(), 0u);
    EXPECT_EQ(made->childChangeCounter(), 0u);
    EXPECT_EQ(made->parent(), nullptr);
    EXPECT_EQ(made->references(), 1u);
}

TEST_F(PrefixTrieStructureTest, FactoriesSwitchNotificationOn) {
    EXPECT_TRUE(Mox::prefixTrieFactory("a")->hasNotificationActive());
    EXPECT_TRUE(PrefixTrie::PrefixTrieIs("a")->hasNotificationActive());
    EXPECT_TRUE(Mox::prefixTrieStateFactory()->hasNotificationActive());
    EXPECT_TRUE(Mox::PrefixTrieState::PrefixTrieStateIs()->hasNotificationActive());
    EXPECT_EQ(PrefixTrie::PrefixTrieIs("a")->name(), "a");
    EXPECT_EQ(PrefixTrie::PrefixTrieIs("a")->fwkType(), Vel::typeOf<PrefixTrie>());
    EXPECT_EQ(Mox::prefixTrieStateFactory()->fwkType(), Vel::typeOf<Mox::PrefixTrieState>());
    EXPECT_EQ(Mox::prefixTrieStateFactory()->name(), "");
}

TEST_F(PrefixTrieStructureTest, CollectionsKeepTheConstantsOfTheirNodes) {
    EXPECT_EQ(PrefixTrie::VelChild::velHashConstant, 1914818491u);
    EXPECT_EQ(PrefixTrie::VelPrefixChild::velHashConstant, 2813198882u);
}

// --- cutting and adding ---

TEST_F(PrefixTrieStructureTest, PathIsCutBeforeEverySeparatorButALeadingOne) {
    struct Case {
        char const* path;
        char const* shape;
    };
    for (auto const& [path, expected] : {
             Case{"a", "a*+"},
             {"a/b.c", "a(/b(.c*+))"},
             {"/x/y", "/x(/y*+)"},
             {".x", ".x*+"},
             {"/", "/*+"},
             {".", ".*+"},
             {"a//b", "a(/(/b*+))"},
             {"//", "/(/*+)"},
             {"..", ".(.*+)"},
             {"a/", "a(/*+)"},
             {"a./b", "a(.(/b*+))"},
             {"./", ".(/*+)"},
             {"\x80\xFF/\xAE\xAF", "\x80\xFF(/\xAE\xAF*+)"},  // 0xAE and 0xAF are separators with the high bit set
             {"a-b/-,0", "a-b(/-,0*+)"},                      // neighbours of the separators
             {"12345678/12345678.1234567/", "12345678(/12345678(.1234567(/*+)))"},
             {"1234567/1/12345678901234567.x", "1234567(/1(/12345678901234567(.x*+)))"},
         }) {
        Ptr<Node> const made = Trie::newEntity("t");
        addTo(*made, path);
        EXPECT_EQ(shapeOf(*made), expected) << path;
    }
}

TEST_F(PrefixTrieStructureTest, SeparatorIsFoundAtEveryPlace) {
    for (char const separator : {'/', '.'})
        for (std::size_t length = 2; length < 40; ++length)
            for (std::size_t at = 1; at < length; ++at) {
                std::string path(length, static_cast<char>(separator + 0x80));
                path[at] = separator;
                Mox::PrefixTrie const& nothing = *trie;
                addTo(*trie, path);
                std::string const head = path.substr(0, at);
                ASSERT_TRUE(nothing.childExists(head)) << length << " " << at;
                ASSERT_TRUE(nothing.child(head)->childExists(path.substr(at)));
                trie->emptyIs(true);
            }
}

TEST_F(PrefixTrieStructureTest, EmptyPathAddsTheChildWithTheEmptyName) {
    add("");
    EXPECT_EQ(shape(), "*+");
    EXPECT_TRUE(trie->isPrefix(""));
    EXPECT_FALSE(trie->present());
    trie->prefixDel("");
    EXPECT_EQ(shape(), "");
    EXPECT_FALSE(trie->isPrefix(""));
}

TEST_F(PrefixTrieStructureTest, StarBeforeASeparatorMarksAMountPoint) {
    struct Case {
        char const* path;
        char const* shape;
    };
    for (auto const& [path, expected] : {
             Case{"a*/b", "a*(/b*+)"}, {"a*.b*/c", "a*(.b*(/c*+))"}, {"*/b", "*(/b*+)"},  // the empty key
             {"a/*/b", "a(/*(/b*+))"},                                                    // the key "/"
             {"a*b/c", "a*b(/c*+)"},                                                      // a star in the middle stays
             {"a*b*/c", "a*b*(/c*+)"},                                                    // only the first star counts
             {"a**/c", "a**(/c*+)"},                                                      //
             {"**/c", "**(/c*+)"},                                                        //
             {"*a/c", "*a(/c*+)"},                                                        //
             {"a/b*/c", "a(/b*(/c*+))"},  // the first star, two components on
         }) {
        Ptr<Node> const made = Trie::newEntity("t");
        addTo(*made, path);
        EXPECT_EQ(shapeOf(*made), expected) << path;
    }
    add("a*b*/c");
    EXPECT_FALSE(nodeAt({"a*b*"})->mountPoint());
    add("*/c");
    EXPECT_TRUE(nodeAt({""})->mountPoint());
    add("a/*/b");
    EXPECT_TRUE(nodeAt({"a", "/"})->mountPoint());
}

TEST_F(PrefixTrieStructureTest, StarInTheLastComponentIsRefusedBeforeItsNodeIsMade) {
    auto const refused = failure("", "starPos == Vel::String::npos", "/src/Mox/PrefixTrie", 0,
        "virtual void Mox::PrefixTrie::prefixIs(const Vel::String&, const Vel::Ptr<Mox::PrefixTrieState>&)");
    for (char const* path : {"a/b*", "*", "a*", "*a", "a/*b", "a*/b*", "/*", "a*b"})
        EXPECT_ABORT(add(path), refused) << path;
    Ptr<Node> const plain = TrieTest::Plain::newEntity("plain");
    EXPECT_ABORT(addTo(*plain, "a/b*"), refused);
}

TEST_F(PrefixTrieStructureTest, NulAndHighBytesArePartOfTheKey) {
    std::string const path = "a\0b/\0\xFF.\0"s;
    add(path);
    EXPECT_TRUE(trie->isPrefix(path));
    EXPECT_FALSE(trie->isPrefix("a\0b/\0\xFF."s));
    EXPECT_FALSE(trie->isPrefix("a"));
    EXPECT_EQ(trie->enclosingPrefix(path + "/x"), path);
    EXPECT_EQ(nodeAt({"a\0b"s, "/\0\xFF"s, ".\0"s})->name(), ".\0"s);
}

TEST_F(PrefixTrieStructureTest, PrefixesShareTheirNodes) {
    add("a/b");
    add("a/c*/d");
    add("a");
    EXPECT_EQ(shape(), "a*+(/b*+ /c*(/d*+))");
    EXPECT_EQ(TrieTest::liveNodes(), 1 + 4u);
    add("a/c");
    EXPECT_EQ(shape(), "a*+(/b*+ /c*+(/d*+))");
}

TEST_F(PrefixTrieStructureTest, NodesAreMadeByNewChildIsInBothCollectionsWithTheirParent) {
    add("a/b");
    auto const a = nodeAt({"a"});
    auto const b = nodeAt({"a", "/b"});
    EXPECT_EQ(a->fwkType(), Vel::typeOf<Trie>());
    EXPECT_EQ(trie->child("a"), a);
    EXPECT_EQ(a->child("/b"), b);
    EXPECT_EQ(a->parent(), trie.get());
    EXPECT_EQ(b->parent(), a.get());
    EXPECT_EQ(b->references(), 3u);  // two collections and this
    EXPECT_EQ(b->path(), "/a//b");
    EXPECT_EQ(trie->entity("a"), a);
}

// --- deleting ---

TEST_F(PrefixTrieStructureTest, DeletingTheOnlyPrefixPrunesTheWholePath) {
    add("a/b");
    takeCalls();
    trie->prefixDel("a/b");
    EXPECT_EQ(shape(), "");
    EXPECT_TRUE(trie->empty());
    EXPECT_EQ(takeCalls(), (Strings{"childInstanceDel /b in a", "childInstanceDel a in root"}));
    trie->prefixDel("a/b");
    EXPECT_EQ(takeCalls(), Strings());
}

TEST_F(PrefixTrieStructureTest, PruningStopsAtANodeThatIsPresentOrHasOtherChildren) {
    for (auto const& path : {"a", "a/b/c", "a/b/d/e"}) add(path);
    trie->prefixDel("a/b/d/e");
    EXPECT_EQ(shape(), "a*+(/b(/c*+))");
    trie->prefixDel("a/b/c");
    EXPECT_EQ(shape(), "a*+");
}

TEST_F(PrefixTrieStructureTest, DeletingAPrefixWithChildrenLeavesTheSubtree) {
    add("a/b", {"old"});
    add("a/b/c", {"c"});
    takeCalls();
    trie->prefixDel("a/b");
    EXPECT_EQ(takeCalls(), Strings{"newStateIs of /b"});
    EXPECT_EQ(shape(), "a(/b*(/c*+))");
    EXPECT_EQ(tagsOf(*nodeAt({"a", "/b"})), TrieTest::Tags());
    EXPECT_EQ(tagsOf(*nodeAt({"a", "/b", "/c"})), (TrieTest::Tags{"c", "old"}));
    EXPECT_TRUE(trie->isPrefix("a/b/c"));
    trie->prefixDel("a/b");  // once more: another fresh state
    EXPECT_EQ(takeCalls(), Strings{"newStateIs of /b"});
}

TEST_F(PrefixTrieStructureTest, DeletingWhatIsNotThereChangesNothing) {
    add("a/b/c");
    takeCalls();
    for (char const* path : {"", "x", "a/x", "a/b/c/d", "/a", "a/b/x/y", "a//b", "a/b/c/", "*"}) trie->prefixDel(path);
    EXPECT_EQ(shape(), "a(/b(/c*+))");
    EXPECT_EQ(takeCalls(), Strings());
}

TEST_F(PrefixTrieStructureTest, DeletingAnInnerNodeThatWasNeverPresentRenewsItsState) {
    add("a/b");
    auto const before = nodeAt({"a"})->state();
    trie->prefixDel("a");
    EXPECT_EQ(shape(), "a(/b*+)");
    EXPECT_NE(nodeAt({"a"})->state(), before);
}

TEST_F(PrefixTrieStructureTest, DeletingBelowAMissingNodePrunesWhatIsEmptyAboveIt) {
    trie->newChildIs("a")->newChildIs("/b");  // nodes without a prefix
    trie->prefixDel("a/b/c");
    EXPECT_EQ(shape(), "");
    EXPECT_EQ(nodes(), "-a(-/b)");
}

TEST_F(PrefixTrieStructureTest, DeletingDropsTheStarAsQueriesDo) {
    add("a*/b");
    EXPECT_EQ(shape(), "a*(/b*+)");
    trie->prefixDel("a*/b");
    EXPECT_EQ(shape(), "");
    add("a/b");
    trie->prefixDel("a/b*");  // a key of its own: not there
    EXPECT_EQ(shape(), "a*(/b*+)");
}

TEST_F(PrefixTrieStructureTest, MountPointPlaysNoPartInPruning) {
    add("a*/b");
    add("a/c");
    trie->prefixDel("a/c");
    EXPECT_EQ(shape(), "a*(/b*+)");
    trie->prefixDel("a/b");
    EXPECT_EQ(nodes(), "-a*(-/b*+ -/c*+)");
}

TEST_F(PrefixTrieStructureTest, PrunedNodesStayInPrefixChildAndAreFoundAgainAsTheyWere) {
    add("a*/b", {"b"});
    auto const a = nodeAt({"a"});
    auto const b = nodeAt({"a", "/b"});
    auto const stateOfB = b->state();
    trie->prefixDel("a/b");
    EXPECT_EQ(nodes(), "-a*(-/b*+)");
    EXPECT_EQ(a->parent(), trie.get());
    EXPECT_EQ(trie->child("a"), nullptr);
    EXPECT_EQ(trie->prefixChild("a"), a);
    EXPECT_EQ(b->references(), 2u);  // one collection and this

    add("a/b/c");
    EXPECT_EQ(shape(), "a*(/b*+(/c*+))");  // /b is present again, with all that it had
    EXPECT_EQ(nodeAt({"a", "/b"}), b);
    EXPECT_EQ(b->state(), stateOfB);
    EXPECT_EQ(tagsOf(*nodeAt({"a", "/b", "/c"})), TrieTest::Tags{"b"});
}

TEST_F(PrefixTrieStructureTest, HookMayDestroyPrunedNodes) {
    hooks.prunedAreDestroyed = true;
    add("a*/b/c", {"old"});
    EXPECT_EQ(TrieTest::liveNodes(), 4u);
    trie->prefixDel("a/b/c");
    EXPECT_EQ(nodes(), "");
    EXPECT_EQ(TrieTest::liveNodes(), 1u);
    add("a/b", {});
    EXPECT_EQ(shape(), "a(/b*+)");
    EXPECT_EQ(tagsOf(*nodeAt({"a", "/b"})), TrieTest::Tags());
}

// --- emptying ---

TEST_F(PrefixTrieStructureTest, EmptyIsTrueReturnsANodeToItsConstructedState) {
    add("a*/b");
    add("a");
    auto const a = nodeAt({"a"});
    EXPECT_TRUE(a->emptyIs(true));
    EXPECT_EQ(a->name(), "a");
    EXPECT_EQ(a->state(), nullptr);
    EXPECT_FALSE(a->mountPoint());
    EXPECT_FALSE(a->present());
    EXPECT_EQ(a->children(), 0u);
    EXPECT_EQ(a->prefixChildren(), 0u);
    EXPECT_EQ(a->parent(), trie.get());
    EXPECT_EQ(TrieTest::liveNodes(), 2u);
    EXPECT_EQ(shape(), "a");
}

TEST_F(PrefixTrieStructureTest, EmptyIsFalseChangesNothing) {
    add("a*/b");
    EXPECT_FALSE(trie->emptyIs(false));
    EXPECT_FALSE(nodeAt({"a"})->emptyIs(false));
    EXPECT_EQ(shape(), "a*(/b*+)");
}

TEST_F(PrefixTrieStructureTest, NodesOfOneNameShareTheString) {
    add("a/status");
    add("b/status");
    EXPECT_TRUE(nodeAt({"a", "/status"})->name().sharesStorageWith(nodeAt({"b", "/status"})->name()));
}

// A thread keeps names that it shares, so it shares none that could be large.
TEST_F(PrefixTrieStructureTest, LongNamesAreNotShared) {
    for (std::size_t const length : {64u, 65u}) {  // with the separator
        std::string const name = "/" + std::string(length - 1, 'x');
        add("a" + name);
        add("b" + name);
        EXPECT_EQ(
            nodeAt({"a", name.c_str()})->name().sharesStorageWith(nodeAt({"b", name.c_str()})->name()), length == 64);
    }
}

// --- the end ---

TEST_F(PrefixTrieStructureTest, LastNodeIsFreedWithTheTrie) {
    for (char const* path : {"a/b/c", "a*/b.d", "x", "x/y"}) add(path);
    trie->prefixDel("x/y");
    trie->prefixDel("a/b/c");
    EXPECT_EQ(TrieTest::liveNodes(), 7u);
    trie = nullptr;
    EXPECT_EQ(TrieTest::liveNodes(), 0u);
    EXPECT_EQ(TrieTest::liveStates(), 0u);
}

TEST_F(PrefixTrieStructureTest, NodesThatAreHeldOutliveTheTrieWithoutAParent) {
    add("a/b");
    auto const a = nodeAt({"a"});
    auto const b = nodeAt({"a", "/b"});
    trie = nullptr;
    EXPECT_EQ(a->parent(), nullptr);
    EXPECT_EQ(b->parent(), a.get());
    EXPECT_TRUE(a->isPrefix("/b"));
}

}  // namespace
