#include "Vel/stream/internal/AttrLog.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using Vel::U8;
using Vel::NboAttrLog::AttrLog;
using Vel::NboAttrLog::MessageKind;

// Chunks of 64 bytes, each with room for two messages of 30.
class AttrLogTest : public testing::Test {
protected:
    void write(char letter, int count = 1) {
        for (int i = 0; i < count; ++i) {
            U8* const body = log.begin(MessageKind::value, 28).append(28);
            std::fill_n(body, 28, static_cast<U8>(letter));
            log.commit();
        }
    }
    static std::string text(std::span<U8 const> bytes) { return std::string(bytes.begin(), bytes.end()); }

    AttrLog log{64};
};

TEST_F(AttrLogTest, SizeIsThatOfWhatIsHeld) {
    write('a', 5);
    EXPECT_EQ(log.size(), 150u);
    EXPECT_EQ(log.sizeFrom(log.tail()), 150u);
    EXPECT_EQ(log.sizeFrom({1, 30}), 60u);
    EXPECT_EQ(log.sizeFrom(log.head()), 0u);
    log.drop({1, 30});
    EXPECT_EQ(log.size(), 90u) << "whole chunks go";
    EXPECT_EQ(log.sizeFrom({1, 30}), 60u);
    log.drop(log.head());
    EXPECT_EQ(log.size(), 30u) << "the last one stays";
}

TEST_F(AttrLogTest, ChunkThatNobodyKeepsIsUsedAgain) {
    write('a', 2);
    U8 const* const first = log.chunk(log.tail())->data();
    write('b');
    log.drop(log.head());
    write('c', 2);
    EXPECT_EQ(log.chunk(log.head())->data(), first);
}

TEST_F(AttrLogTest, ChunkThatIsKeptStaysAsItIs) {
    write('a', 2);
    auto const kept = log.chunk(log.tail());
    std::string const before = text(kept->bytes());
    write('b');
    log.drop(log.head());
    write('c', 20);
    EXPECT_EQ(text(kept->bytes()), before);
    EXPECT_EQ(kept->size(), 60u);
}

}  // namespace
