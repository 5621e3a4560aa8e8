#include "Mox/PrefixTrieFlowOut.h"
#include "test/Vel/stream/StreamTools.h"

#include <gtest/gtest.h>

namespace {

using namespace StreamTest;
using Mox::PrefixTrie;
using Vel::Ptr;
using Ids = std::vector<Vel::AttributeId>;
constexpr Vel::AttributeId none = ~Vel::AttributeId(0);

std::string key(std::string const& text) {
    Vel::NboAttrLog::Out out;
    out << Vel::String(text);
    return {reinterpret_cast<char const*>(out.data()), out.size()};
}

// A node "t" with a state; "a" in both its collections, "b" in prefixChild only.
class PrefixTrieStreamTest : public testing::Test {
protected:
    PrefixTrieStreamTest() {
        trie->stateIs(Mox::prefixTrieStateFactory());
        trie->newChildIs("a");
        trie->prefixChildIs("b");
        trie->presentIs(true);
    }
    Ptr<PrefixTrie> trie = Mox::prefixTrieFactory("t");
    Vel::StreamView view{trie};
    Vel::Entity::VelNboAttrLogSa& adapter = *view.adapterIs(*trie);
    Line line{view};
};

// What a replica is sent of "t", in order. The member "a" is referred to by "child" first; it is announced by the
// collection that makes it.
Strings const state{"type 1 Mox::PrefixTrieState", "announce 2 type 1 at 1.258", "value 1.258 00000002"};
Strings const flags{"value 1.259 00", "value 1.260 01"};
Strings const child{"announce 4 type 0 at 1.262 a", "keySet 1.261 a 4"};

Strings concat(std::initializer_list<Strings> parts) {
    Strings all;
    for (Strings const& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

TEST_F(PrefixTrieStreamTest, FlowsOutInTheOrderOfItsAttributes) {
    EXPECT_EQ(line.flow(adapter, 0), Ids{0});
    EXPECT_EQ(line.sent.size(), 8u);
    EXPECT_EQ(Strings(line.sent.begin(), line.sent.begin() + 5), concat({state, flags}));
    EXPECT_EQ(line.sent[5].substr(0, 8), "announce");
    EXPECT_EQ(line.sent[6].substr(0, 14), "keySet 1.261 a");
    EXPECT_EQ(line.sent[7].substr(line.sent[7].size() - 18), " type 0 at 1.262 b");
}

TEST_F(PrefixTrieStreamTest, FlowsTheRestFromEachAttribute) {
    std::map<Vel::AttributeId, std::size_t> counts;
    for (Vel::AttributeId const from : {0u, 258u, 259u, 260u, 261u, 262u}) {
        Line fresh(view);
        EXPECT_EQ(fresh.flow(adapter, from), Ids{0});
        counts[from] = fresh.sent.size();
        if (from >= 261) {
            EXPECT_NE(fresh.sent[0].find(" at 1.262 "), std::string::npos) << fresh.sent[0];
        }
    }
    EXPECT_EQ(
        counts, (std::map<Vel::AttributeId, std::size_t>{{0, 8}, {258, 8}, {259, 5}, {260, 4}, {261, 3}, {262, 2}}));
    for (Vel::AttributeId const from : {1u, 257u, 263u, 270u}) EXPECT_EQ(line.flow(adapter, from), Ids{none}) << from;
    EXPECT_EQ(line.sent, Strings{});
}

TEST_F(PrefixTrieStreamTest, FlowCutAtEveryMessageIsTheSameFlow) {
    Line whole(view);
    whole.flow(adapter, 0);
    line.room = 1;  // what announces a member goes with the reference to it
    EXPECT_EQ(line.flow(adapter, 0), (Ids{259, 260, 261, 262, 0}));
    EXPECT_EQ(line.sent, whole.sent);
}

TEST_F(PrefixTrieStreamTest, NewFlowFlagsWhatIsNotBelowItsBeginning) {
    for (Vel::AttributeId const from : {0u, 258u, 259u, 260u, 261u, 262u, 263u}) {
        PrefixTrie::FlowOut const flow(adapter.table(), from);
        for (Vel::AttributeId const id : {258u, 259u, 260u}) EXPECT_EQ(flow.velIsDirty(id), id >= from) << from;
        for (Vel::AttributeId const id : {261u, 262u}) EXPECT_EQ(flow.velHasSynced(id), id < from) << from;
        EXPECT_FALSE(flow.velHasDirtyKeys());
    }
}

TEST_F(PrefixTrieStreamTest, FlowHasThreeSetsOfKeys) {
    PrefixTrie::FlowOut flow(adapter.table(), PrefixTrie::FlowOut::fromEnd);
    EXPECT_TRUE(flow.velKeyIsDirtyIs(261, key("a"), false));
    EXPECT_TRUE(flow.velHasDirtyKeys());
    EXPECT_EQ(flow.velDirtyKeys(261), 1u);
    EXPECT_EQ(flow.velDirtyKeys(262), 0u);
    EXPECT_FALSE(flow.velKeyIsDirtyIs(261, key("a"), false));
    EXPECT_TRUE(flow.velKeyIsDirtyIs(262, key("b"), false));
    EXPECT_FALSE(flow.velKeyIsDirtyIs(262, key("b"), true));
    EXPECT_EQ(flow.childDirtyKeys(), (PrefixTrie::FlowOut::Keys{"a"}));
    EXPECT_EQ(flow.prefixChildDirtyKeys(), (PrefixTrie::FlowOut::Keys{"b"}));
    EXPECT_EQ(flow.prefixChildEphemeralDirtyKeys(), (PrefixTrie::FlowOut::Keys{"b"}));
    EXPECT_EQ(flow.velDirtyKeyTake(262).key, key("b"));
    EXPECT_TRUE(flow.prefixChildEphemeralDirtyKeys().empty());
    EXPECT_TRUE(flow.velHasDirtyKeys());
    EXPECT_FALSE(flow.velDirtyKeyTake(261).ephemeral);
    EXPECT_FALSE(flow.velHasDirtyKeys());
}

TEST_F(PrefixTrieStreamTest, BookmarkIsReleasedOnlyWhereTheFlowStoppedInACollection) {
    for (Vel::AttributeId const stopped : {258u, 259u, 260u, 261u, 262u}) {
        PrefixTrie::FlowOut flow(adapter.table(), 0);
        flow.bookmarkIs(std::make_unique<Vel::NboAttrLog::velFlowOutBookmarkDeq<Vel::String>>());
        flow.resumeIdIs(stopped);
        flow.velResyncStateDel();
        EXPECT_EQ(flow.bookmark() == nullptr, stopped >= 261) << stopped;
    }
}

// --- to a replica ---

class PrefixTrieReplicaTest : public PrefixTrieStreamTest {
protected:
    PrefixTrieReplicaTest() {
        pair.connect();
        pair.run();
        copy = Vel::ptr_cast<PrefixTrie>(pair.replica.root());
    }
    Pair pair{trie};
    Ptr<PrefixTrie> copy;
};

TEST_F(PrefixTrieReplicaTest, IsRebuilt) {
    ASSERT_TRUE(copy);
    pair.expectEqual();
    EXPECT_EQ(copy->prefixChild("a")->parent(), copy.get());
    EXPECT_TRUE(copy->childExists("a"));
    EXPECT_FALSE(copy->childExists("b"));
}

TEST_F(PrefixTrieReplicaTest, PrunedNodeLeavesChildAndStays) {
    auto const node = copy->prefixChild("a");
    trie->childDel("a");
    pair.run();
    EXPECT_FALSE(copy->childExists("a"));
    EXPECT_EQ(copy->prefixChild("a"), node);
}

TEST_F(PrefixTrieReplicaTest, MemberThatGoesAndComesAgainIsAnotherOne) {
    auto const node = copy->prefixChild("a");
    trie->childDel("a");
    trie->prefixChildDel("a");
    trie->newChildIs("a");
    pair.run();
    pair.expectEqual();
    EXPECT_NE(copy->prefixChild("a"), node);
}

// What a source sends that has a node "a" in the trie, and a node "b" in that; then puts `member`, which is above, into
// "b".
Vel::String errorOfCircle(PrefixTrie& copy, unsigned member, char const* key) {
    using Vel::NboAttrLog::Compact;
    using Vel::NboAttrLog::MessageKind;
    Vel::AttrLogReplica replica(Ptr<Vel::Entity>(&copy), {});
    replica.connected();
    takeOutput(replica);
    Vel::NboAttrLog::BufferSm sm;
    auto const send = [&](MessageKind kind, auto const& body) {
        body(sm.begin(kind, 0));
        sm.commit();
    };
    send(MessageKind::welcome, [](auto& out) { out << Vel::U16(2) << false; });
    send(MessageKind::type, [](auto& out) {
        Vel::VelType const type = Vel::typeOf<PrefixTrie>();
        out << Compact{0} << Vel::String(type.name()) << Vel::String(type.moduleName()) << type.moduleFingerprint();
    });
    send(MessageKind::announce, [](auto& out) { out << Compact{1} << Compact{0} << Compact{0} << Vel::String("t"); });
    send(MessageKind::announce,
        [](auto& out) { out << Compact{2} << Compact{0} << Compact{1} << Compact{262} << Vel::String("a"); });
    send(MessageKind::announce,
        [](auto& out) { out << Compact{3} << Compact{0} << Compact{2} << Compact{262} << Vel::String("b"); });
    replica.input(sm.bytes());
    EXPECT_EQ(replica.error(), "");
    EXPECT_TRUE(copy.prefixChild("a") && copy.prefixChild("a")->prefixChild("b"));
    sm.clear();
    send(MessageKind::keySet,
        [&](auto& out) { out << Compact{3} << Compact{262} << Vel::String(key) << Compact{member}; });
    send(MessageKind::synced, [](auto&) {});  // until then what is between them may still be taken out
    replica.input(sm.bytes());
    return replica.error();
}

TEST(PrefixTrieCircleTest, NodeIsNotPutBelowItself) {
    for (unsigned const member : {1u, 2u, 3u}) {
        auto const copy = Mox::prefixTrieFactory("t");
        char const* const names[] = {"t", "a", "b"};
        EXPECT_EQ(errorOfCircle(*copy, member, names[member - 1]), "an entity within itself") << member;
        auto const a = copy->prefixChild("a");
        ASSERT_TRUE(a && a->prefixChild("b")) << member;
        EXPECT_EQ(a->parent(), copy.get());
        EXPECT_EQ(a->prefixChild("b")->prefixChildren(), 0u);
    }
}

// --- changes while a reader catches up ---

class PrefixTrieCatchUpTest : public PrefixTrieStreamTest {
protected:
    PrefixTrieCatchUpTest() {
        view.demuxer().catchingUpIs(reader, true);
        reader.announce(node, {});
        reader.continueFlowOut();
        reader.take();
    }
    Strings flow() {
        reader.continueFlowOut();
        return reader.take();
    }
    std::string idOf(PrefixTrie const& entity) const { return std::to_string(view.adapter(entity)->id()); }

    Vel::Entity::VelNboAttrLogSa& node = *view.adapterIs(*trie);
    Line reader{view};
};

TEST_F(PrefixTrieCatchUpTest, ChangesLeaveOneFlagForEachAttribute) {
    for (int i = 0; i < 5; ++i) trie->presentIs(i % 2 == 0);
    EXPECT_EQ(view.demuxer().changes(), 4u);
    EXPECT_EQ(view.demuxer().coalesced(), 3u);
    EXPECT_EQ(flow(), Strings{"value 1.260 01"});
    EXPECT_EQ(flow(), Strings{});
}

TEST_F(PrefixTrieCatchUpTest, DeletionIsSentBeforeTheKeyThatCameAgain) {
    trie->prefixChildDel("b");
    trie->prefixChildIs("b");
    auto const& keys = static_cast<PrefixTrie::FlowOut const&>(*node.velRawFlowOut(reader));
    EXPECT_EQ(keys.prefixChildEphemeralDirtyKeys(), (PrefixTrie::FlowOut::Keys{"b"}));
    Strings const sent = flow();
    ASSERT_GE(sent.size(), 2u);
    EXPECT_EQ(sent[0], "keyDel 1.262 b");
    EXPECT_EQ(sent[1], "announce " + idOf(*trie->prefixChild("b")) + " type 0 at 1.262 b");
}

TEST_F(PrefixTrieCatchUpTest, KeyThatCameAndWentIsDeleted) {
    trie->prefixChildIs("c");
    trie->prefixChildDel("c");
    EXPECT_EQ(flow(), Strings{"keyDel 1.262 c"});
}

TEST_F(PrefixTrieCatchUpTest, MemberThatWasMadeBeforeItsCollectionBeganIsDeleted) {
    trie->newChildIs("z");
    Line late(view);
    view.demuxer().catchingUpIs(late, true);
    late.announce(node, {});
    late.take();
    late.room = 6;  // state, flags, and one of the two children, which brings along that it is in prefixChild
    late.continueFlowOut();
    Strings const begun = late.take();
    ASSERT_EQ(begun.size(), 7u);
    EXPECT_EQ(late.flow(node)->resumeId(), 261u);
    std::string const child = begun.back().substr(std::string("keySet 1.261 ").size(), 1);
    auto const kept = trie->prefixChildDel(child);
    late.room = 1000;
    late.continueFlowOut();
    Strings const rest = late.take();
    EXPECT_EQ(std::count(rest.begin(), rest.end(), "keyDel 1.262 " + child), 1) << testing::PrintToString(rest);
}

TEST_F(PrefixTrieCatchUpTest, KeyIsSentOnceHoweverOftenItChanged) {
    auto const a = trie->prefixChild("a");
    for (int i = 0; i < 4; ++i) {
        trie->childDel("a");
        trie->childIs(a);
    }
    EXPECT_EQ(flow(), Strings{"keySet 1.261 a " + idOf(*a)});
    EXPECT_EQ(view.demuxer().coalesced(), 7u);
}

}  // namespace
