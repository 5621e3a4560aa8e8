#include "ModuleTable.h"
#include "PrefixTrieTest.h"
#include "VirtualSlot.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/entity/Dir.h"

// A trie reached by its type record: attributes by number, the module's table, the slots of the virtual operations.
namespace {

using namespace std::string_literals;
using Mox::PrefixTrie;
using Mox::PrefixTrieState;
using Vel::AttributeOp;
using Vel::Ptr;
using Vel::String;
using Vel::U32;

char const* nameOf(Vel::VelType type) { return type ? type.name() : "-"; }

// "258 state entityAttribute Mox::PrefixTrieState" and so on, with parameters in parentheses.
std::string lineOf(Vel::VelAttr const& attr) {
    static char const* const kinds[] = {
        "field", "derived", "constant", "setter", "method", "collection", "ctorParam", "declared", "entityAttribute"};
    std::string text = std::to_string(attr.attributeId()) + " " + attr.name() + " " + kinds[unsigned(attr.kind())];
    if (attr.kind() == Vel::AttributeKind::method) {
        text += " (";
        for (U32 i = 0; i < attr.parameterCount(); ++i)
            text += (i ? ", " : "") + std::string(nameOf(attr.parameterType(i))) + " " + attr.parameterName(i);
        return text + ") " + nameOf(attr.resultType());
    }
    if (attr.keyType()) text += " "s + nameOf(attr.keyType()) + " to";
    return text + " " + nameOf(attr.valueType());
}
Strings linesOf(Vel::VelType type) {
    Strings lines;
    for (U32 i = 0; i < type.attributeCount(); ++i) lines.push_back(lineOf(type.attribute(i)));
    return lines;
}

class PrefixTrieReflectionTest : public PrefixTrieTest {
protected:
    int op(Vel::AttributeId id, AttributeOp operation, void* result = nullptr, void const* other = nullptr,
        void const* arg = nullptr) const {
        return trie->attributeOp(result, Vel::typeOf<PrefixTrie>().attributeOfId(id).value(), operation, other, arg);
    }
    template <class... A> int call(Vel::AttributeId id, void* result, A const&... arguments) const {
        void const* const pointers[] = {&arguments..., nullptr};
        return op(id, AttributeOp::call, result, nullptr, pointers);
    }
};

TEST_F(PrefixTrieReflectionTest, TrieListsItsAttributesInTheOrderOfTheirIds) {
    EXPECT_EQ(linesOf(Vel::typeOf<PrefixTrie>()),
        (Strings{
            "258 state entityAttribute Mox::PrefixTrieState",
            "259 mountPoint entityAttribute bool",
            "260 present entityAttribute bool",
            "261 child collection Vel::String to Mox::PrefixTrie",
            "262 prefixChild collection Vel::String to Mox::PrefixTrie",
            "263 newStateIs method () Mox::PrefixTrieState",
            "264 newChildIs method (Vel::String key) Mox::PrefixTrie",
            "265 childInstanceDel method (Vel::String key) -",
            "266 empty derived bool",
            "267 emptyIs method (bool value) bool",
            "268 hasPrefixInternal method (Vel::String path, bool proper) bool",
            "269 enclosingPrefixInternal method (Vel::String path, bool proper) Vel::String",
            "270 prefixIs method (Vel::String path, Mox::PrefixTrieState newState) -",
            "271 prefixDel method (Vel::String path) -",
            "272 hasPrefix method (Vel::String path) bool",
            "273 hasProperPrefix method (Vel::String path) bool",
            "274 enclosingPrefix method (Vel::String path) Vel::String",
            "275 properEnclosingPrefix method (Vel::String path) Vel::String",
            "276 isPrefix method (Vel::String path) bool",
            "277 isLeaf method (Vel::String path) bool",
            "278 prefixState method (Vel::String path) Mox::PrefixTrieState",
            "279 upgradeState method (Mox::PrefixTrieState inheritedState, bool inheritedOnly) -",
            "280 appendInternal method (Mox::PrefixTrie other, Mox::PrefixTrieState inheritedState) -",
            "281 append method (Mox::PrefixTrie target) -",
        }));
}

TEST_F(PrefixTrieReflectionTest, StateListsItsTwoMethods) {
    EXPECT_EQ(linesOf(Vel::typeOf<PrefixTrieState>()),
        (Strings{"258 upgradeState method (Mox::PrefixTrieState inheritedState, bool inheritedOnly) bool",
            "259 outputForm method () Vel::String"}));
}

TEST_F(PrefixTrieReflectionTest, StoredAttributesAreReadAndSetThroughTheMutators) {
    observe(*trie);
    Ptr<PrefixTrieState> const state = stateOf("s");
    bool const on = true;
    for (int again = 0; again < 2; ++again) {
        EXPECT_EQ(op(258, AttributeOp::set, nullptr, nullptr, &state), 0);
        EXPECT_EQ(op(259, AttributeOp::set, nullptr, nullptr, &on), 0);
        EXPECT_EQ(op(260, AttributeOp::set, nullptr, nullptr, &on), 0);
    }
    EXPECT_EQ(takeNotified(), (Strings{"root 258", "root 259", "root 260"}));
    Ptr<PrefixTrieState> read;
    bool flags[2] = {};
    EXPECT_EQ(op(258, AttributeOp::get, &read), 0);
    EXPECT_EQ(op(259, AttributeOp::get, &flags[0]), 0);
    EXPECT_EQ(op(260, AttributeOp::get, &flags[1]), 0);
    EXPECT_EQ(read, state);
    EXPECT_TRUE(flags[0] && flags[1]);
}

TEST_F(PrefixTrieReflectionTest, CollectionsAreReachedByKey) {
    String const key = "a";
    for (Vel::AttributeId const id : {262u, 261u}) {
        Ptr<PrefixTrie> const made = id == 262 ? nullptr : trie->prefixChild("a");
        EXPECT_EQ(op(id, AttributeOp::set, nullptr, &key, &made), 0);
        Ptr<PrefixTrie> read;
        EXPECT_EQ(op(id, AttributeOp::get, &read, &key), 0);
        ASSERT_TRUE(read);
        EXPECT_EQ(read, trie->prefixChild("a"));
        U32 count = 0;
        U32 changes = 0;
        bool exists = false;
        EXPECT_EQ(op(id, AttributeOp::count, &count), 0);
        EXPECT_EQ(op(id, AttributeOp::changeCounter, &changes), 0);
        EXPECT_EQ(op(id, AttributeOp::exists, &exists, &key), 0);
        EXPECT_EQ(count, 1u);
        EXPECT_EQ(changes, trie->childChangeCounter());
        EXPECT_TRUE(exists);
    }
    for (Vel::AttributeId const id : {261u, 262u}) {
        Ptr<PrefixTrie> removed;
        EXPECT_EQ(op(id, AttributeOp::del, &removed, &key), 0);
        EXPECT_TRUE(removed);
        bool exists = true;
        EXPECT_EQ(op(id, AttributeOp::exists, &exists, &key), 0);
        EXPECT_FALSE(exists);
    }
}

TEST_F(PrefixTrieReflectionTest, MethodsThatMakeAreCalledVirtually) {
    Ptr<PrefixTrieState> state;
    EXPECT_EQ(call(263, &state), 0);
    EXPECT_EQ(TrieTest::labelOf(state), "root#1");
    Ptr<PrefixTrie> made;
    EXPECT_EQ(call(264, &made, String("a")), 0);
    EXPECT_EQ(made, trie->child("a"));
    EXPECT_EQ(call(265, nullptr, String("a")), 0);
    EXPECT_EQ(takeCalls(), (Strings{"newStateIs of root", "newChildIs a in root", "childInstanceDel a in root"}));
}

TEST_F(PrefixTrieReflectionTest, PathsAreAddedAskedAndDeleted) {
    Ptr<PrefixTrieState> const state = stateOf("s", {"x"});
    EXPECT_EQ(call(270, nullptr, String("a/b"), state), 0);
    EXPECT_EQ(shape(), "a(/b*+)");
    auto const answer = [&](Vel::AttributeId id, char const* path) {
        bool result = false;
        EXPECT_EQ(call(id, &result, String(path)), 0);
        return result;
    };
    EXPECT_TRUE(answer(272, "a/b"));
    EXPECT_FALSE(answer(273, "a/b"));
    EXPECT_TRUE(answer(273, "a/b/c"));
    EXPECT_TRUE(answer(276, "a/b"));
    EXPECT_FALSE(answer(276, "a"));
    EXPECT_TRUE(answer(277, "a/b"));
    EXPECT_FALSE(answer(277, "a"));
    bool result = true;
    EXPECT_EQ(call(268, &result, String("a/b"), true), 0);
    EXPECT_FALSE(result);
    String text;
    EXPECT_EQ(call(269, &text, String("a/b"), false), 0);
    EXPECT_EQ(text, "a/b");
    EXPECT_EQ(call(275, &text, String("a/b")), 0);
    EXPECT_EQ(text, "");
    EXPECT_EQ(call(274, &text, String("a/b/c")), 0);
    EXPECT_EQ(text, "a/b");
    Ptr<PrefixTrieState> found;
    EXPECT_EQ(call(278, &found, String("a/b")), 0);
    EXPECT_EQ(found, trie->prefixState("a/b"));
    EXPECT_EQ(call(271, nullptr, String("a/b")), 0);
    EXPECT_EQ(shape(), "");
}

TEST_F(PrefixTrieReflectionTest, StatesArePushedDownAndTriesMerged) {
    add("a");
    Ptr<PrefixTrieState> const state = stateOf("s", {"x"});
    EXPECT_EQ(call(279, nullptr, state, true), 0);
    EXPECT_EQ(tagsOf(*nodeAt({"a"})), TrieTest::Tags{"x"});
    Ptr<PrefixTrie const> const other = trieOf({"b"});
    EXPECT_EQ(call(281, nullptr, other), 0);
    EXPECT_EQ(shape(), "a*+ b*+");
    Ptr<PrefixTrie const> const third = trieOf({"c"});
    EXPECT_EQ(call(280, nullptr, third, state), 0);
    EXPECT_EQ(shape(), "a*+ b*+ c*+");
    EXPECT_EQ(tagsOf(*nodeAt({"c"})), TrieTest::Tags{"x"});
}

TEST_F(PrefixTrieReflectionTest, EmptinessIsReadAndTheNodeCleared) {
    add("a");
    bool result = true;
    EXPECT_EQ(op(266, AttributeOp::get, &result), 0);
    EXPECT_FALSE(result);
    EXPECT_EQ(call(267, &result, true), 0);
    EXPECT_TRUE(result);
    EXPECT_EQ(nodes(), "");
    EXPECT_EQ(op(266, AttributeOp::get, &result), 0);
    EXPECT_TRUE(result);
}

TEST_F(PrefixTrieReflectionTest, StatesMethodsAreCalledVirtually) {
    Ptr<PrefixTrieState> const state = stateOf("s", {"x"});
    Ptr<PrefixTrieState> const other = stateOf("t", {"y"});
    bool const inherited = true;
    void const* const arguments[] = {&other, &inherited};
    bool changed = false;
    auto const type = Vel::typeOf<PrefixTrieState>();
    EXPECT_EQ(state->attributeOp(&changed, type.attribute(0u), AttributeOp::call, nullptr, arguments), 0);
    EXPECT_TRUE(changed);
    EXPECT_EQ(takeCalls(), Strings{"s.upgradeState(t, inherited) changed"});
    String text;
    EXPECT_EQ(state->attributeOp(&text, type.attribute(1u), AttributeOp::call, nullptr, arguments), 0);
    EXPECT_EQ(text, "s{x,y}");
    for (U32 n = 0; n < 40; ++n)
        for (U32 i = 0; i < 2 && n != 10; ++i)
            EXPECT_EQ(state->attributeOp(nullptr, type.attribute(i), AttributeOp(n)), 1) << n;
}

TEST_F(PrefixTrieReflectionTest, OtherOperationsAreRefused) {
    for (Vel::AttributeId id = 258; id <= 281; ++id)
        for (U32 n = 0; n < 40; ++n) {
            bool const answered = id <= 260 ? n <= 1 : id <= 262 ? n <= 5 : id == 266 ? n == 0 : n == 10;
            if (!answered) {
                EXPECT_EQ(op(id, AttributeOp(n)), 1) << id << " " << n;
            }
        }
    for (U32 n = 0; n < 40; ++n) EXPECT_EQ(trie->attributeOp(nullptr, Vel::VelAttr(), AttributeOp(n)), 1) << n;
}

TEST_F(PrefixTrieReflectionTest, OtherIdsAreUnknown) {
    auto const type = Vel::typeOf<PrefixTrie>();
    for (Vel::AttributeId const id : {0u, 1u, 2u, 257u, 282u}) {
        EXPECT_FALSE(type.attributeOfId(id)) << id;
        EXPECT_EQ(type.attributeOp(nullptr, trie.get(), id, AttributeOp::get), 2) << id;
    }
    EXPECT_FALSE(type.attribute("name"));
    for (U32 n = 0; n < 40; ++n) EXPECT_EQ(trie->attributeOp(nullptr, Vel::VelAttr(type, 24), AttributeOp(n)), 2) << n;
    EXPECT_FALSE(Vel::typeOf<PrefixTrieState>().attributeOfId(260));
}

// --- types and creation ---

TEST_F(PrefixTrieReflectionTest, TypesAreRegisteredEntities) {
    for (auto const& type : {Vel::typeOf<PrefixTrie>(), Vel::typeOf<PrefixTrieState>()}) {
        EXPECT_EQ(type, Vel::Registry::type(type.name()));
        EXPECT_TRUE(type.isEntity());
        EXPECT_TRUE(type.isPolymorphic());
        EXPECT_STREQ(nameOf(type.base()), "Vel::Entity");
        EXPECT_EQ(type.moduleName(), "PrefixTrie");
    }
    EXPECT_TRUE(Vel::typeOf<Trie>().isDerived(Vel::typeOf<PrefixTrie>()));
}

TEST_F(PrefixTrieReflectionTest, DirectoryCreatesTriesByNameAlone) {
    auto const dir = Vel::Dir::newEntity("dir");
    auto const made = Vel::ptr_cast<PrefixTrie>(dir->createEntity("Mox::PrefixTrie", "t"));
    ASSERT_TRUE(made);
    EXPECT_EQ(made->name(), "t");
    EXPECT_EQ(made->parent(), dir.get());
    EXPECT_TRUE(made->hasNotificationActive());
    EXPECT_EQ(made->fwkType(), Vel::typeOf<PrefixTrie>());
    void const* const arguments[] = {nullptr};
    EXPECT_THROW(dir->createEntity("Mox::PrefixTrie", "u", arguments), Vel::NewEntityArgsException);
    EXPECT_THROW(dir->createEntity("Mox::PrefixTrieState", "u", arguments), Vel::NewEntityArgsException);
}

TEST_F(PrefixTrieReflectionTest, DirectoryCreatesDerivedTriesWhichAreFoundByPath) {
    auto const dir = Vel::Dir::newEntity("dir");
    auto const made = Vel::ptr_cast<Trie>(dir->createEntity("TrieTest::Trie", "t"));
    ASSERT_TRUE(made);
    addTo(*made, "a");
    EXPECT_EQ(dir->entity("t/a"), made->child("a"));
    EXPECT_EQ(dir->entity("t/b"), nullptr);
    EXPECT_EQ(made->child("a")->path(), "/t/a");
}

// --- the module's table ---

class PrefixTrieModuleTest : public testing::Test {
protected:
    ModuleTable const table{"_PrefixTrie_9a69df417466d32c_velModule"};
    void SetUp() override { ASSERT_TRUE(table); }
};

TEST_F(PrefixTrieModuleTest, TableIsExportedUnderItsSymbol) {
    EXPECT_TRUE(table.isInLibrary()) << table.fileName();
    EXPECT_EQ(table.header(), &Vel::typeOf<PrefixTrie>().module());
    EXPECT_EQ(table.header()->fingerprint, 0x9a69df417466d32cul);
}

TEST_F(PrefixTrieModuleTest, NamesAreListedInByteOrder) {
    EXPECT_EQ(table.typeNames(), "Mox::PrefixTrie\0Mox::PrefixTrieState\0Vel::Entity\0Vel::String\0bool\0"s);
    EXPECT_EQ(table.attributeNames(),
        "\0append\0appendInternal\0child\0childInstanceDel\0empty\0emptyIs\0enclosingPrefix\0enclosingPrefixInternal\0"
        "hasPrefix\0hasPrefixInternal\0hasProperPrefix\0inheritedOnly\0inheritedState\0isLeaf\0isPrefix\0key\0"
        "mountPoint\0newChildIs\0newState\0newStateIs\0other\0outputForm\0path\0prefixChild\0prefixDel\0prefixIs\0"
        "prefixState\0present\0proper\0properEnclosingPrefix\0state\0target\0upgradeState\0value\0"s);
}

TEST_F(PrefixTrieModuleTest, RecordsHaveTheirLayout) {
    ASSERT_EQ(table.types(), 2u);
    EXPECT_STREQ(Vel::VelType(table.header(), 0).name(), "Mox::PrefixTrieState");
    EXPECT_STREQ(Vel::VelType(table.header(), 1).name(), "Mox::PrefixTrie");
    EXPECT_EQ(table.firstAttribute(0), 0u);
    EXPECT_EQ(table.attributeCount(0), 2u);
    EXPECT_EQ(table.firstAttribute(1), 2u);
    EXPECT_EQ(table.attributeCount(1), 24u);
    ASSERT_EQ(table.attributes(), 26u);
    for (unsigned i = 0; i < 24; ++i) EXPECT_EQ(table.attributeId(2 + i), 258 + i);
    EXPECT_EQ(table.attributeName(0), "upgradeState");
    EXPECT_EQ(table.attributeName(2), "state");
    EXPECT_EQ(table.attributeName(25), "append");
}

// --- virtual operations ---

TEST_F(PrefixTrieReflectionTest, VirtualOperationsFollowThoseOfAnEntityInTheAgreedOrder) {
    auto const last = slotOf(&Vel::Entity::velChild);
    EXPECT_EQ(slotOf(&PrefixTrieState::upgradeState), last + 1);
    EXPECT_EQ(slotOf(&PrefixTrieState::outputForm), last + 2);
    EXPECT_EQ(slotOf(&PrefixTrie::newStateIs), last + 1);
    EXPECT_EQ(slotOf(&PrefixTrie::newChildIs), last + 2);
    EXPECT_EQ(slotOf(&PrefixTrie::emptyIs), last + 3);
    EXPECT_EQ(slotOf(&PrefixTrie::prefixIs), last + 4);
    EXPECT_EQ(slotOf(&PrefixTrie::upgradeState), last + 5);
    EXPECT_EQ(slotOf(&PrefixTrie::append), last + 6);
    EXPECT_EQ(slotOf(&PrefixTrie::childInstanceDel), last + 7);
}

}  // namespace
