#include "Vel/describe/StreamTable.h"
#include "Vel/stream/StreamPeer.h"
#include "Vel/stream/StreamRights.h"
#include "Vel/stream/StreamWrite.h"
#include "Vel/stream/WriteHistory.h"
#include "Vel/text/OutSm.h"

#include <gtest/gtest.h>

namespace {

// A program of g++ uses a library of clang++. g++ 12 passes a scoped enumeration of 8 bits that a call has returned as
// it came, whatever is in the rest of the register, while clang++ compares 32 bits of it.
template <class E> constexpr bool isPassedAlike = sizeof(E) >= 4;

TEST(AbiTest, BothCompilersPassTheEnumerationsOfTheInterfaceAlike) {
    EXPECT_TRUE(isPassedAlike<Vel::Access>);
    EXPECT_TRUE(isPassedAlike<Vel::HistoryList>);
    EXPECT_TRUE(isPassedAlike<Vel::NboAttrLog::MessageKind>);
    EXPECT_TRUE(isPassedAlike<Vel::StreamFault>);
    EXPECT_TRUE(isPassedAlike<Vel::StreamKind>);
    EXPECT_TRUE(isPassedAlike<Vel::WriteResult>);
}

}  // namespace
