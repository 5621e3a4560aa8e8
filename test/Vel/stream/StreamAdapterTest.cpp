#include "Vel/stream/internal/StreamAdapter.h"

#include "StreamTools.h"
#include "Vel/stream/internal/StreamView.h"
#include "test/Vel/describe/Fixtures.h"

namespace {

using namespace StreamTest;
using Fixture::Leaf;
using Vel::AttributeId;
using Vel::Ptr;
using Vel::String;
using Vel::U32;

class Recorder : public Vel::Entity::VelNboAttrLogSa {
public:
    using VelNboAttrLogSa::VelNboAttrLogSa;
    bool doMessageMulticast(AttributeId id) override {
        calls.push_back("multicast " + std::to_string(id));
        return delivers;
    }
    Vel::NboAttrLog::OutSm* singletonSerializeCheck(
        AttributeId id, Vel::NboAttrLog::FlowConnection* to, bool whole, std::size_t size, bool isKey) override {
        calls.push_back(Vel::format("check %u %d %d %zu %d", id, to != nullptr, whole, size, isKey).stdString());
        if (!takes) return nullptr;
        sm.begin(Vel::NboAttrLog::MessageKind::value, size);
        return &sm;
    }
    Strings calls;
    bool delivers = false;
    bool takes = true;
    Vel::NboAttrLog::BufferSm sm;
};

class HandleValueSerializationTest : public testing::Test {
protected:
    Ptr<Leaf> leaf = Leaf::newEntity("a");
    Vel::StreamView view{leaf};
    StreamTest::Line line{view};
    Recorder recorder{view.demuxer(), *leaf, 1, 0};
};

TEST_F(HandleValueSerializationTest, ChecksThenWritesThenCommits) {
    recorder.handleValueSerialization(259, Fixture::Version(7, true), &line);
    EXPECT_EQ(recorder.calls, Strings{"check 259 1 1 5 0"});
    EXPECT_EQ(messages(recorder.sm.bytes()), Strings{"050000000701"});
    recorder.handleValueSerialization(260, String("abc"), nullptr);
    EXPECT_EQ(recorder.calls.back(), "check 260 0 1 7 0");
}

TEST_F(HandleValueSerializationTest, StopsWhereThereIsNoOutput) {
    recorder.takes = false;
    recorder.handleValueSerialization(259, U32(1), nullptr);
    EXPECT_EQ(recorder.sm.size(), 0u);
}

TEST_F(HandleValueSerializationTest, MulticastThatDeliversIsAll) {
    recorder.attrLogFlagsIs(0x4000, true);
    recorder.delivers = true;
    recorder.handleValueSerialization(259, U32(1), nullptr);
    EXPECT_EQ(recorder.calls, Strings{"multicast 259"});
    recorder.delivers = false;
    recorder.handleValueSerialization(259, U32(1), nullptr);
    EXPECT_EQ(recorder.calls.back(), "check 259 0 1 4 0");
}

TEST_F(HandleValueSerializationTest, NoMulticastToOneReaderOrOfAReadersChange) {
    for (U32 const bit : {0x80000u, 0x100000u}) {
        recorder.calls.clear();
        recorder.attrLogFlagsIs(0x4000 | bit, true);
        recorder.handleValueSerialization(259, U32(1), nullptr);
        EXPECT_EQ(recorder.calls, Strings{"check 259 0 1 4 0"});
        recorder.attrLogFlagsIs(bit, false);
    }
}

TEST(StreamAdapterTest, AnotherEntityMayBeAppliedWhileOneIsWritten) {
    class Other : public Recorder {
    public:
        using Recorder::Recorder;
        Vel::NboAttrLog::OutSm* singletonSerializeCheck(
            AttributeId id, Vel::NboAttrLog::FlowConnection*, bool, std::size_t, bool) override {
            Bytes const bytes{0, 0, 0, 9};
            Vel::NboAttrLog::In in(bytes);
            other->onAttributeForConnection(id, in);
            return nullptr;
        }
        Vel::StreamAdapter* other = nullptr;
    };
    auto const a = Leaf::newEntity("a"), b = Leaf::newEntity("b");
    Vel::StreamDemuxer demuxer;
    Recorder ofB(demuxer, *b, 2, 1);
    Other ofA(demuxer, *a, 1, 0);
    ofA.other = &ofB;
    ofA.handleAttributeSerialization(*ofA.table().find(258), nullptr, nullptr);
    EXPECT_EQ(b->size(), 9u);
}

TEST(StreamAdapterDeathTest, NothingIsAppliedWhileItIsWritten) {
    class Reentrant : public Recorder {
    public:
        using Recorder::Recorder;
        Vel::NboAttrLog::OutSm* singletonSerializeCheck(
            AttributeId id, Vel::NboAttrLog::FlowConnection*, bool, std::size_t, bool) override {
            Bytes const bytes(4);
            Vel::NboAttrLog::In in(bytes);
            onAttributeForConnection(id, in);
            return nullptr;
        }
    };
    auto const leaf = Leaf::newEntity("a");
    Vel::StreamDemuxer demuxer;
    Reentrant adapter(demuxer, *leaf, 1, 0);
    EXPECT_DEATH(adapter.handleAttributeSerialization(*adapter.table().find(258), nullptr, nullptr), "!_isActive");
}

}  // namespace
