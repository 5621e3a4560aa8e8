#include "Vel/stream/internal/SharedSm.h"

#include "StreamTools.h"

namespace {

using namespace StreamTest;

class SharedSmTest : public testing::Test {
protected:
    SharedSmTest() {
        shared.targetIs(a);
        shared.targetIs(b);
    }
    void write(U32 token) {
        shared.begin(MessageKind::ping, 4) << token;
        shared.commit();
    }

    Vel::NboAttrLog::BufferSm a, b;
    Vel::NboAttrLog::SharedSm shared;
};

TEST_F(SharedSmTest, WhatWaitsIsGivenToAllTargetsAtOneGo) {
    write(1);
    write(2);
    EXPECT_EQ(shared.waiting(), 12u);
    EXPECT_EQ(a.size(), 0u);
    shared.giveOut();
    EXPECT_EQ(shared.waiting(), 0u);
    for (auto const* const target : {&a, &b}) {
        EXPECT_EQ(told(target->bytes()), (Strings{"ping 1", "ping 2"}));
        EXPECT_EQ(target->messages(), 2u);
    }
    shared.giveOut();
    EXPECT_EQ(a.size(), 12u) << "what has been given out is not given out again";
}

TEST_F(SharedSmTest, MessageThatWasBegunOnlyIsLeftOut) {
    write(1);
    shared.begin(MessageKind::ping, 4) << U32(2);
    shared.giveOut();
    EXPECT_EQ(told(a.bytes()), Strings{"ping 1"});
}

TEST_F(SharedSmTest, TargetsGetWhatWaitsBeforeTheyGo) {
    write(1);
    shared.targetsDel();
    EXPECT_EQ(told(a.bytes()), Strings{"ping 1"});
    EXPECT_TRUE(shared.targets().empty());
    shared.targetIs(b);
    write(2);
    shared.giveOut();
    EXPECT_EQ(told(a.bytes()), Strings{"ping 1"});
    EXPECT_EQ(told(b.bytes()), (Strings{"ping 1", "ping 2"}));
}

}  // namespace
