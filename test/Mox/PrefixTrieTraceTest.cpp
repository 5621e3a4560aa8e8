#include "PrefixTrieTest.h"

// What a trie traces: every operation that is entered at level 8, details at level 9.
namespace {

std::string const added =
    "8 virtual void Mox::PrefixTrie::prefixIs(const Vel::String&, const Vel::Ptr<Mox::PrefixTrieState>&) adding ";
std::string const deleted = "8 void Mox::PrefixTrie::prefixDel(const Vel::String&) deleting ";
std::string const pushed =
    "8 virtual void Mox::PrefixTrie::upgradeState(const Vel::Ptr<Mox::PrefixTrieState>&, bool) for ";
std::string const merged = "8 void Mox::PrefixTrie::appendInternal(const Vel::Ptr<const Mox::PrefixTrie>&, const "
                           "Vel::Ptr<Mox::PrefixTrieState>&) inherited State:";
std::string const emptied = "8 virtual bool Mox::PrefixTrie::emptyIs(bool): value = ";
std::string const has = "8 bool Mox::PrefixTrie::hasPrefixInternal(const Vel::String&, bool)";
std::string const encloses = "8 Vel::String Mox::PrefixTrie::enclosingPrefixInternal(const Vel::String&, bool)";

class PrefixTrieTraceTest : public PrefixTrieTest {
protected:
    void traceLevels(std::string const& levels) {
        Vel::Trace::sinkIs([this](Vel::TraceRecord const& r) {
            EXPECT_STREQ(r.facility, "PrefixTrie");
            EXPECT_STREQ(r.file, "/src/Mox/PrefixTrie");
            EXPECT_GT(r.line, 0u);
            traced.push_back(std::to_string(r.level) + " " + std::string(r.text));
            functions.push_back(r.function);
        });
        Vel::Trace::levelsIs(levels);
    }
    Strings takeTraced() { return std::exchange(traced, {}); }

    Strings traced;
    Strings functions;
};

TEST_F(PrefixTrieTraceTest, AddingAPrefix) {
    traceLevels("PrefixTrie/8-9");
    trie->prefixIs("a*/b", stateOf("s", {"x", "y"}));
    EXPECT_EQ(takeTraced(), (Strings{added + "a*/b to root, state: s{x,y}", "9  Uninitialized state. New: a#1{}",
                                added + "/b to a, state: s{x,y}", "9  Uninitialized state. New: /b#1{}",
                                pushed + "/b, inherited state:s{x,y}"}));
    trie->prefixIs("a/b/c", stateOf("t"));
    EXPECT_EQ(takeTraced(), (Strings{added + "a/b/c to root, state: t{}", added + "/b/c to a, state: t{}",
                                added + "/c to /b, state: t{x,y}", "9  Uninitialized state. New: /c#1{}",
                                pushed + "/c, inherited state:t{x,y}"}));
}

TEST_F(PrefixTrieTraceTest, AddingAPrefixThatIsLeftToTheBaseTracesTheSame) {
    trie = TrieTest::Plain::newEntity("plain");
    traceLevels("PrefixTrie/8-9");
    trie->prefixIs("a*/b", stateOf("s", {"x"}));
    EXPECT_EQ(takeTraced(), (Strings{added + "a*/b to plain, state: s{x}", "9  Uninitialized state. New: fresh{}",
                                added + "/b to a, state: s{x}", "9  Uninitialized state. New: fresh{}",
                                pushed + "/b, inherited state:s{x}"}));
}

TEST_F(PrefixTrieTraceTest, PushingAStateDown) {
    add("a/b");
    traceLevels("PrefixTrie/8-9");
    trie->prefixIs("a", stateOf("s", {"x"}));
    EXPECT_EQ(takeTraced(), (Strings{added + "a to root, state: s{x}", pushed + "a, inherited state:s{x}",
                                pushed + "/b, inherited state:a#1{x}"}));
}

TEST_F(PrefixTrieTraceTest, DeletingAPrefix) {
    add("a/b");
    traceLevels("PrefixTrie/8-9");
    trie->prefixDel("a/b");
    EXPECT_EQ(takeTraced(), (Strings{deleted + "a/b from root", deleted + "/b from a"}));
    trie->prefixDel("a/b");
    EXPECT_EQ(takeTraced(), (Strings{deleted + "a/b from root", "9 a/b already deleted from root"}));
    trie->prefixDel("a");
    EXPECT_EQ(takeTraced(), (Strings{deleted + "a from root", "9 a already deleted from root"}));
    add("a/c");
    takeTraced();
    trie->prefixDel("a/b/c");
    EXPECT_EQ(
        takeTraced(), (Strings{deleted + "a/b/c from root", deleted + "/b/c from a", "9 /b/c already deleted from a"}));
}

TEST_F(PrefixTrieTraceTest, AppendingATrie) {
    add("a/x");
    auto const other = trieOf({"a/b", "a"});
    traceLevels("PrefixTrie/8-9");
    trie->append(other);
    EXPECT_EQ(takeTraced(), (Strings{merged + "root#1{}, while merging root", merged + "root#1{}, while merging a",
                                merged + "a#1{}, while merging /b"}));
}

TEST_F(PrefixTrieTraceTest, Emptying) {
    traceLevels("PrefixTrie/8-9");
    trie->emptyIs(false);
    trie->emptyIs(true);
    EXPECT_EQ(takeTraced(), (Strings{emptied + "False", emptied + "True"}));
}

TEST_F(PrefixTrieTraceTest, AskingForAPrefix) {
    add("a/b");
    traceLevels("PrefixTrie/8-9");
    std::string const is = "8 bool Mox::PrefixTrie::isPrefix(const Vel::String&)";
    (void)trie->isPrefix("a*/b");
    EXPECT_EQ(takeTraced(), (Strings{is + "a*/b in root", is + "/b in a"}));
    (void)trie->isPrefix("x/y");
    EXPECT_EQ(takeTraced(), Strings{is + "x/y in root"});
    std::string const leaf = "8 bool Mox::PrefixTrie::isLeaf(const Vel::String&) const";
    (void)trie->isLeaf("a/b");
    EXPECT_EQ(takeTraced(), (Strings{leaf + "a/b in root", leaf + "/b in a"}));
    std::string const state = "8 Vel::Ptr<Mox::PrefixTrieState> Mox::PrefixTrie::prefixState(const Vel::String&) ";
    (void)trie->prefixState("a/b");
    EXPECT_EQ(takeTraced(), (Strings{state + "a/b in root", state + "/b in a"}));
}

TEST_F(PrefixTrieTraceTest, AskingForAnEnclosingPrefix) {
    add("a/b");
    traceLevels("PrefixTrie/8-9");
    (void)trie->hasPrefix("a/b/c");
    EXPECT_EQ(takeTraced(), (Strings{has + "a/b/c in root", has + "/b/c in a"}));
    (void)trie->hasProperPrefix("a/b");
    EXPECT_EQ(takeTraced(), (Strings{has + "a/b (proper) in root", has + "/b (proper) in a"}));
    (void)trie->enclosingPrefix("a/b");
    EXPECT_EQ(takeTraced(), (Strings{encloses + "a/b in root", encloses + "/b in a"}));
    (void)trie->properEnclosingPrefix("a/b/c");
    EXPECT_EQ(takeTraced(), (Strings{encloses + "a/b/c in root", encloses + "/b/c in a", encloses + "/c in /b"}));
    (void)trie->enclosingPrefix("");
    EXPECT_EQ(takeTraced(), Strings{encloses + " in root"});
}

TEST_F(PrefixTrieTraceTest, OtherOperationsTraceNothing) {
    traceLevels("PrefixTrie/*");
    auto const a = trie->newChildIs("a");
    trie->childDel("a");
    trie->childIs(a);
    trie->childInstanceDel("a");
    trie->presentIs(true);
    trie->newStateIs();
    (void)trie->empty();
    trie->prefixChildDelAll();
    EXPECT_EQ(takeTraced(), Strings());
}

TEST_F(PrefixTrieTraceTest, LevelsAreIndependent) {
    traceLevels("PrefixTrie/9");
    add("a");
    trie->prefixDel("x");
    EXPECT_EQ(takeTraced(), (Strings{"9  Uninitialized state. New: a#1{}", "9 x already deleted from root"}));
    traceLevels("PrefixTrie/8");
    add("b");
    trie->prefixDel("x");
    EXPECT_EQ(takeTraced(),
        (Strings{added + "b to root, state: new{}", pushed + "b, inherited state:new{}", deleted + "x from root"}));
    traceLevels("PrefixTrie/0-7,Cell/0-9");
    add("c/d");
    (void)trie->isPrefix("c");
    EXPECT_EQ(takeTraced(), Strings());
}

TEST_F(PrefixTrieTraceTest, OutputFormIsNotCalledWhileItsLevelIsOff) {
    auto const work = [&] {
        hooks.outputForms = 0;
        Vel::Ptr<Node> const made = Trie::newEntity("t");
        addTo(*made, "a/b", {"x"});
        made->append(trieOf({"a", "c"}));
        made->prefixDel("a");
        return hooks.outputForms;
    };
    EXPECT_EQ(work(), 0u);
    traceLevels("PrefixTrie/9");
    EXPECT_EQ(work(), 4u);  // the fresh states of a, /b, and the other's two
    traceLevels("PrefixTrie/0-7");
    EXPECT_EQ(work(), 0u);
    traceLevels("PrefixTrie/8");
    EXPECT_EQ(work(), 3u + 4u + 3u);
}

TEST_F(PrefixTrieTraceTest, NulInAPathIsTracedWhole) {
    traceLevels("PrefixTrie/8");
    using namespace std::string_literals;
    trie->prefixDel("a\0b"s);
    EXPECT_EQ(takeTraced(), Strings{deleted + "a\0b from root"s});
}

TEST_F(PrefixTrieTraceTest, RecordsNameTheOperation) {
    traceLevels("PrefixTrie/8-9");
    add("a");
    (void)trie->isPrefix("a");
    (void)trie->isLeaf("a");
    (void)trie->prefixState("a");
    (void)trie->hasPrefix("a");
    (void)trie->enclosingPrefix("a");
    trie->append(Trie::newEntity("empty"));
    trie->prefixDel("a");
    trie->emptyIs(true);
    EXPECT_EQ(functions,
        (Strings{"prefixIs", "prefixIs", "upgradeState", "isPrefix", "isLeaf", "prefixState", "hasPrefixInternal",
            "enclosingPrefixInternal", "appendInternal", "upgradeState", "prefixDel", "emptyIs"}));
}

}  // namespace
