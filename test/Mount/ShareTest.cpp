#include "Mount/Client.h"
#include "Mount/Server.h"
#include "test/Mount/TempFolder.h"

#include "Mox/Generation.h"
#include "Redundancy/RedundancyStatus.h"
#include "Vel/entity/Dir.h"

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;
using Mount::Client;
using Mount::Server;
using Vel::Dir;
using Vel::Ptr;
using Vel::String;

class ShareTest : public testing::Test {
protected:
    String address() const { return "unix:" + folder.path("socket"); }
    Ptr<Redundancy::RedundancyStatus> status(Ptr<Dir> const& dir, char const* name) {
        return Vel::ptr_cast<Redundancy::RedundancyStatus>(dir->createEntity("Redundancy::RedundancyStatus", name));
    }

    TempFolder folder;
    Mount::Loop loop;
    Ptr<Dir> served = Dir::newEntity("served");
    Ptr<Dir> here = Dir::newEntity("here");
};

TEST_F(ShareTest, ACopyIsMadeAndFollows) {
    auto const original = status(served, "status");
    original->activeCellIdIs(1);
    Server server(loop, served);
    server.listen(address());
    Client client(loop, address(), here, "copy");
    ASSERT_TRUE(client.sync(5s)) << client.error();
    auto const copy = Vel::ptr_cast<Redundancy::RedundancyStatus>(here->entity("copy/status"));
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->activeCellId(), 1u);
    original->activeCellIdIs(2);
    EXPECT_TRUE(loop.runUntil([&] { return copy->activeCellId() == 2; }, 5s));
}

}  // namespace
