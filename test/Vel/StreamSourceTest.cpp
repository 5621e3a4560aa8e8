#include "Fixtures.h"
#include "StreamTools.h"

#include "Vel/Exception.h"

namespace {

using namespace StreamTest;
using Fixture::Leaf;
using Fixture::Twig;
using Vel::Dir;
using Vel::Ptr;

// A directory "root" with a leaf "a".
class StreamSourceTest : public testing::Test {
protected:
    StreamSourceTest() { root->entryIs(a); }
    ~StreamSourceTest() override { root->entryDelAll(); }

    Ptr<Dir> root = Dir::newEntity("root");
    Ptr<Leaf> a = Leaf::newEntity("a");
};

TEST_F(StreamSourceTest, SynchronisesFromNothing) {
    a->sizeIs(7);
    Pair pair(root);
    pair.connect();
    pair.run();
    EXPECT_EQ(pair.replica.error(), "");
    EXPECT_EQ(pair.reader->error(), "");
    EXPECT_EQ(pair.replica.state(), Vel::AttrLogReplica::State::synced);
    pair.expectEqual();
    a->sizeIs(8);
    root->entryIs(Twig::newEntity("b"));
    pair.run();
    pair.expectEqual();
    root->entryDel("a");
    pair.run();
    pair.expectEqual();
}

}  // namespace
