#include "StreamTools.h"
#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/stream/internal/StreamProtocol.h"
#include "test/Vel/describe/Fixtures.h"

namespace {

using namespace StreamTest;
using Fixture::Leaf;
using Vel::Dir;
using Vel::Ptr;
using Vel::String;
using Vel::U32;
using Vel::U8;
using Vel::NboAttrLog::Compact;
using Vel::NboAttrLog::In;
using Vel::NboAttrLog::MessageKind;
using Vel::NboAttrLog::Out;

// --- lengths and other compact numbers ---

TEST(StreamNumberTest, SmallNumbersTakeFewBytes) {
    std::vector<std::pair<U32, char const*>> const cases{{0, "00"}, {63, "3f"}, {64, "4040"}, {258, "4102"},
        {16383, "7fff"}, {16384, "80004000"}, {(1u << 30) - 1, "bfffffff"}, {1u << 30, "c000000040000000"},
        {0xFFFFFFFF, "c0000000ffffffff"}};
    for (auto const& [number, bytes] : cases) {
        Out out;
        out << Compact{number};
        EXPECT_EQ(hex(out.bytes()), bytes);
        EXPECT_EQ(Vel::NboAttrLog::compactSize(number), out.size());
        In in(out.bytes());
        EXPECT_EQ(nextCompact(in), number);
        EXPECT_EQ(in.left(), 0u);
        for (std::size_t cut = 0; cut < out.size(); ++cut) {
            In less(out.bytes().first(cut));
            EXPECT_THROW(nextCompact(less), Vel::StreamException);
            EXPECT_EQ(less.offset(), 0u);
            EXPECT_EQ(Vel::NboAttrLog::messageLength(out.bytes().first(cut)).size, 0u);
        }
        EXPECT_EQ(Vel::NboAttrLog::messageLength(out.bytes()).length, number);
    }
}

TEST(StreamNumberTest, NumberInMoreBytesThanItNeedsIsTheSame) {
    for (std::size_t const size : {1u, 2u, 4u, 8u}) {
        U8 bytes[8];
        Vel::NboAttrLog::storeCompact(bytes, 5, size);
        In in(std::span<U8 const>(bytes).first(size));
        EXPECT_EQ(nextCompact(in), 5u);
        EXPECT_EQ(in.left(), 0u);
    }
}

TEST(StreamNumberTest, NumberOfMoreThan32BitsIsRefused) {
    U8 const bytes[]{0xC0, 0, 0, 1, 0, 0, 0, 0};
    In in(bytes);
    EXPECT_THROW(nextCompact(in), Vel::StreamException);
}

TEST(StreamNumberTest, MessageMayBeLongerThanWasSaidWhenItWasBegun) {
    for (std::size_t const said : {0u, 10u, 62u, 63u, 100u, 20000u})
        for (std::size_t const size : {0u, 62u, 63u, 64u, 1000u, 16382u, 16383u, 20000u}) {
            Vel::NboAttrLog::BufferSm sm;
            sm.begin(MessageKind::ping, 0);
            sm.commit();
            std::size_t const before = sm.size();
            Out& out = sm.begin(MessageKind::value, said);
            for (std::size_t i = 0; i < size; ++i) out << static_cast<U8>(i);
            sm.commit();
            auto const bytes = sm.bytes().subspan(before);
            auto const body = Vel::NboAttrLog::messageBody(bytes);
            ASSERT_EQ(body.size(), size) << said;
            EXPECT_EQ(Vel::NboAttrLog::messageLength(bytes).length, 1 + size);
            EXPECT_EQ(body.data()[-1], static_cast<U8>(MessageKind::value));
            for (std::size_t i = 0; i < size; ++i) ASSERT_EQ(body[i], static_cast<U8>(i));
        }
}

// --- exact bytes ---

// A directory "d" with a leaf "x" of size 7 that points to itself.
class StreamBytesTest : public testing::Test {
protected:
    StreamBytesTest() {
        leaf->sizeIs(7);
        leaf->peerIs(leaf);
        root->entryIs(leaf);
        pair.connect();
        pair.reader->input(takeOutput(pair.replica));
    }
    ~StreamBytesTest() override { leaf->peerIs(nullptr); }
    Strings sent() { return messages(takeOutput(*pair.reader)); }

    Ptr<Dir> root = Dir::newEntity("d");
    Ptr<Leaf> leaf = Leaf::newEntity("x");
    Pair pair{root};
};

// "type 0 Vel::Dir Dir <fingerprint>"
std::string typeBytes(std::string const& index, std::string const& name, std::string const& module, Vel::VelType type) {
    Out out;
    out << String(name) << String(module) << type.moduleFingerprint();
    return "03" + index + hex(out.bytes());
}

TEST_F(StreamBytesTest, SynchronisationIsTheseMessages) {
    EXPECT_EQ(sent(), (Strings{"02000200",                                         // welcome, read-only
                          typeBytes("00", "Vel::Dir", "Dir", Vel::typeOf<Dir>()),  //
                          "04010000"                                               // announce 1, the root
                          "0000000164",                                            // "d"
                          typeBytes("01", "Fixture::Leaf", "Fixtures", Vel::typeOf<Leaf>()),
                          "040201014102"  // announce 2 in 1.258
                          "0000000178"    // at "x"
                          "0000000178",   // name "x"
                          "060141020000000178"
                          "02",                  // keySet 1.258 "x" 2
                          "0502410200000007",    // value 2.258
                          "050241030000000000",  // value 2.259
                          "0502410400000002",    // pointer 2.260
                          "09"}));               // synced
}

TEST_F(StreamBytesTest, ChangesAreTheseMessages) {
    sent();
    leaf->sizeIs(8);
    EXPECT_EQ(sent(), Strings{"0502410200000008"});
    leaf->peerIs(nullptr);
    EXPECT_EQ(sent(), Strings{"0502410400000000"});
    Ptr<Leaf> const kept = leaf;
    root->entryDel("x");
    EXPECT_EQ(sent(), Strings{"070141020000000178"});
    root->entryIs(kept);
    EXPECT_EQ(sent(), Strings{"06014102000000017802"});
}

TEST_F(StreamBytesTest, DestroyedEntityIsGone) {
    sent();
    auto const other = Leaf::newEntity("y");
    root->entryIs(other);
    sent();
    Vel::EntityId const id = pair.source.impl().adapter(*other)->id();
    EXPECT_EQ(id, 3u);
    root->entryDel("x");
    leaf->peerIs(nullptr);
    leaf = nullptr;
    EXPECT_EQ(sent(), (Strings{"070141020000000178", "0502410400000000", "0802"}));
    leaf = Leaf::newEntity("");
}

}  // namespace
