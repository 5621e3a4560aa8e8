#include "Vel/stream/internal/FlowConnection.h"

#include "StreamTools.h"
#include "Vel/stream/internal/StreamView.h"
#include "test/Vel/describe/Fixtures.h"

namespace {

using namespace StreamTest;
using Fixture::Leaf;
using Vel::Dir;
using Vel::Ptr;
using Vel::NboAttrLog::FlowOut;

constexpr Vel::AttributeId dirEntries = 258;  // the collection of a directory

// A directory with the leaves "a" and "b", and a connection that has been told of nothing.
class FlowConnectionTest : public testing::Test {
protected:
    FlowConnectionTest() {
        for (auto const& leaf : {a, b}) root->entryIs(leaf);
    }
    ~FlowConnectionTest() override { root->entryDelAll(); }
    Vel::NboAttrLog::Adapter& adapter(Vel::Entity& entity) { return *line.adapterOf(&entity); }
    Vel::StreamAttribute const& attribute(Vel::Entity& entity, Vel::AttributeId id) {
        return *adapter(entity).table().find(id);
    }
    static std::string keyOf(char const* name) {
        Out key;
        key << Vel::String(name);
        return {reinterpret_cast<char const*>(key.data()), key.size()};
    }

    Ptr<Dir> root = Dir::newEntity("root");
    Ptr<Leaf> a = Leaf::newEntity("a"), b = Leaf::newEntity("b");
    Vel::StreamView view{root};
    Line line{view};
};

TEST_F(FlowConnectionTest, EntityIsAnnouncedOnceWithItsTypeAndPlace) {
    line.announce(adapter(*root), {});
    line.sendKey(adapter(*root), attribute(*root, dirEntries), keyOf("a"), true);
    EXPECT_EQ(line.take(), (Strings{"type 0 Vel::Dir", "announce 1 type 0 root", "type 1 Fixture::Leaf",
                               "announce 2 type 1 at 1.258 a a", "keySet 1.258 a 2"}));
    line.sendKey(adapter(*root), attribute(*root, dirEntries), keyOf("a"), true);
    EXPECT_EQ(line.take(), Strings{"keySet 1.258 a 2"});
}

TEST_F(FlowConnectionTest, PointerToNothingIsZeroAndToAnEntityAnnouncesIt) {
    line.announce(adapter(*root), {});
    line.announce(adapter(*a), {});
    line.take();
    line.sendPtr(adapter(*a), attribute(*a, 260), nullptr);
    EXPECT_EQ(line.take(), Strings{"value 2.260 00000000"});
    line.sendPtr(adapter(*a), attribute(*a, 260), line.adapterOf(b.get()));
    EXPECT_EQ(line.take(), (Strings{"announce 3 type 1 at 2.260 b", "value 2.260 00000003"}));
    EXPECT_EQ(line.adapterOf(nullptr), nullptr);
}

TEST_F(FlowConnectionTest, KeyWithoutAMemberIsDeletedUnlessItIsNewToTheReader) {
    line.announce(adapter(*root), {});
    line.take();
    Vel::U64 const before = line.flowed();
    line.sendKey(adapter(*root), attribute(*root, dirEntries), keyOf("z"), true);
    EXPECT_EQ(line.take(), Strings{});
    EXPECT_EQ(line.flowed(), before + 1) << "and counts, though it says nothing";
    line.sendKey(adapter(*root), attribute(*root, dirEntries), keyOf("z"), false);
    EXPECT_EQ(line.take(), Strings{"keyDel 1.258 z"});
}

TEST_F(FlowConnectionTest, FlowGoesOnWhereTheOutputWasFull) {
    line.announce(adapter(*root), {});
    line.take();
    line.room = 1;
    Strings all;
    for (int turns = 0; line.hasWaiting() && turns < 100; ++turns) {
        line.continueFlowOut();
        for (std::string const& message : line.take()) all.push_back(message);
    }
    EXPECT_EQ(std::count_if(all.begin(), all.end(), [](auto const& m) { return m.starts_with("keySet 1.258"); }), 2);
    EXPECT_EQ(line.flows(), 0u);
    EXPECT_FALSE(line.hasWaiting());
    line.flowIs(adapter(*a), FlowOut::fromEnd).velIsDirtyIs(258, true);
    EXPECT_TRUE(line.hasWaiting());
    line.continueFlowOut();
    EXPECT_EQ(line.take(), Strings{"value 2.258 00000000"});
}

TEST_F(FlowConnectionTest, KnowledgeOfAnotherConnectionIsTakenOverAndForgotten) {
    line.announce(adapter(*root), {});
    Line second(view);
    EXPECT_FALSE(second.isAnnounced(adapter(*root)));
    second.knowledgeIs(line);
    EXPECT_TRUE(second.isAnnounced(adapter(*root)));
    EXPECT_TRUE(second.isNotBegun(adapter(*root)));
    second.tellType(0);
    EXPECT_EQ(second.take(), Strings{}) << "the type was told";
    second.forget(adapter(*root), false);
    EXPECT_FALSE(second.isAnnounced(adapter(*root)));
    EXPECT_TRUE(line.isAnnounced(adapter(*root)));
    second.clear();
    EXPECT_FALSE(second.hasWaiting());
}

}  // namespace
