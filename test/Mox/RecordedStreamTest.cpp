#include "ValueTest.h"
#include "test/Vel/stream/StreamTools.h"
#include "test/Vel/stream/ValueTable.h"

#include "Mox/ChipSet.h"
#include "Mox/Events.h"
#include "Mox/Generation.h"
#include "Mox/IdSet.h"
#include "Mox/PrefixTrie.h"
#include "Mox/TristateTypes.h"
#include "Mox/UniqueId.h"

#include "Vel/describe/Module.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

// Whatever the processor, a source sends the bytes of recorded-stream.txt, and a copy makes the same of them. One
// message a line: who sent it, and its bytes in hexadecimal. Where the format is meant to change, this records it anew:
//
//     MOX_RECORD_STREAM=1 build/dev/test/mox_test --gtest_filter=RecordedStreamTest.ThisMachineSendsTheRecordedBytes
namespace RecordedStream {

using Vel::Ptr;
using Vel::String;

// A value of each width and of each kind of encoding.
class Sample : public Vel::EntityOf<Sample> {
public:
    explicit Sample(String const& name) : EntityOf(name) {}

    Vel::U16 port() const { return port_; }
    void portIs(Vel::U16 v) { velSet<&Sample::port_>(v); }
    Vel::U64 bytes() const { return bytes_; }
    void bytesIs(Vel::U64 v) { velSet<&Sample::bytes_>(v); }
    Vel::F64 load() const { return load_; }
    void loadIs(Vel::F64 v) { velSet<&Sample::load_>(v); }
    String text() const { return text_; }
    void textIs(String const& v) { velSet<&Sample::text_>(v); }
    Mox::CountStat count() const { return count_; }
    void countIs(Mox::CountStat const& v) { velSet<&Sample::count_>(v); }
    Mox::ChipSet chips() const { return chips_; }
    void chipsIs(Mox::ChipSet const& v) { velSet<&Sample::chips_>(v); }
    Mox::IdSet ids() const { return ids_; }
    void idsIs(Mox::IdSet const& v) { velSet<&Sample::ids_>(v); }
    Mox::UniqueId id() const { return id_; }
    void idIs(Mox::UniqueId const& v) { velSet<&Sample::id_>(v); }
    Mox::TristateF64 limit() const { return limit_; }
    void limitIs(Mox::TristateF64 const& v) { velSet<&Sample::limit_>(v); }
    Ptr<Vel::Entity> peer() const { return peer_; }
    void peerIs(Ptr<Vel::Entity> const& v) { velSet<&Sample::peer_>(v); }

    static constexpr auto description() {
        using S = Sample;
        return Vel::entity("RecordedStream::Sample", Vel::attribute<&S::port_, &S::port, &S::portIs>("port"),
            Vel::attribute<&S::bytes_, &S::bytes, &S::bytesIs>("bytes"),
            Vel::attribute<&S::load_, &S::load, &S::loadIs>("load"),
            Vel::attribute<&S::text_, &S::text, &S::textIs>("text"),
            Vel::attribute<&S::count_, &S::count, &S::countIs>("count"),
            Vel::attribute<&S::chips_, &S::chips, &S::chipsIs>("chips"),
            Vel::attribute<&S::ids_, &S::ids, &S::idsIs>("ids"), Vel::attribute<&S::id_, &S::id, &S::idIs>("id"),
            Vel::attribute<&S::limit_, &S::limit, &S::limitIs>("limit"),
            Vel::attribute<&S::peer_, &S::peer, &S::peerIs>("peer"));
    }

private:
    Vel::U16 port_ = 0;
    Vel::U64 bytes_ = 0;
    Vel::F64 load_ = 0;
    String text_;
    Mox::CountStat count_;
    Mox::ChipSet chips_;
    Mox::IdSet ids_;
    Mox::UniqueId id_{0, 0, 0};
    Mox::TristateF64 limit_;
    Ptr<Vel::Entity> peer_;
};

namespace {

using StreamTest::Bytes;
using StreamTest::Entry;
using StreamTest::ValueTable;

constexpr char const* fileName = MOX_SOURCE_DIR "/test/Mox/recorded-stream.txt";

std::string recorded() {
    std::ifstream file(fileName);
    return {std::istreambuf_iterator<char>(file), {}};
}

// What is served. Hash maps have at most one member when they are sent as a whole, since their order means nothing.
struct World {
    Ptr<Vel::Dir> root = Vel::Dir::newEntity("root");
    Ptr<Sample> sample = Sample::newEntity("sample");
    Ptr<Mox::PrefixTrie> trie = Mox::prefixTrieFactory("trie");
    Ptr<ValueTable> table = ValueTable::newEntity("table");
    Ptr<Mox::GenerationEntity> generation = Mox::generationEntityFactory("generation");

    World() {
        for (Ptr<Vel::Entity> const& entity :
            {Ptr<Vel::Entity>(sample), Ptr<Vel::Entity>(trie), Ptr<Vel::Entity>(table), Ptr<Vel::Entity>(generation)})
            root->entryIs(entity);
        sample->textIs("before\n\"\xc3\xa4\"");
        trie->newChildIs("net")->newChildIs("/eth0");
        table->entryIs("first", Entry(1));
        table->markIs(200, 0x01020304);
        table->markIs(3, 7);
    }
    void change() {
        sample->portIs(0x1234);
        sample->bytesIs(0x123456789abcdef0);
        sample->loadIs(-0.1);
        sample->countIs({258, 1700000000.125});
        sample->chipsIs({5, 6});
        sample->idsIs({300, {1, 2, 3, 64, 255, 299}});
        sample->idIs({1700000000, 4711, 9});
        sample->limitIs(Mox::TristateF64::valueSet(1e300));
        sample->peerIs(generation);
        trie->newChildIs("disk");
        trie->newChildIs("disk")->presentIs(true);
        trie->prefixChildDel("net");
        for (Vel::U32 const number : {70000u, 2u, 3u}) table->entryIs(Vel::format("key %u", number), Entry(number));
        table->entryDel("first");
        table->markDel(3);
        generation->generationIs({0x01020304, true});
    }
    ~World() { sample->peerIs(nullptr); }
};

void expectCopied(Vel::Dir const& root) {
    auto const sample = Vel::ptr_cast<Sample>(root.entry("sample"));
    auto const trie = Vel::ptr_cast<Mox::PrefixTrie>(root.entry("trie"));
    auto const table = Vel::ptr_cast<ValueTable>(root.entry("table"));
    ASSERT_TRUE(sample && trie && table);
    EXPECT_EQ(sample->port(), 0x1234);
    EXPECT_EQ(sample->bytes(), 0xfedcba9876543210);
    EXPECT_EQ(sample->load(), -0.1);
    EXPECT_EQ(sample->text(), "before\n\"\xc3\xa4\"");
    EXPECT_EQ(sample->count(), Mox::CountStat(258, 1700000000.125));
    EXPECT_EQ(sample->chips(), Mox::ChipSet(5, 6));
    EXPECT_EQ(sample->ids().stringValue(), "(1-3,64,255,299)");
    EXPECT_EQ(sample->id(), Mox::UniqueId(1700000000, 4711, 9));
    EXPECT_EQ(sample->limit(), Mox::TristateF64::valueSet(1e300));
    EXPECT_EQ(sample->peer(), root.entry("generation"));
    EXPECT_EQ(Vel::ptr_cast<Mox::GenerationEntity>(sample->peer())->generation(), Mox::Generation(0x01020304, true));
    EXPECT_EQ(trie->prefixChildren(), 1u);
    EXPECT_TRUE(trie->prefixChild("disk")->present());
    EXPECT_FALSE(table->entryExists("first"));
    EXPECT_EQ(table->entry("key 70000"), Entry(70000));
    EXPECT_EQ(table->mark(200), 0x01020304u);
    EXPECT_FALSE(table->markExists(3));
    sample->peerIs(nullptr);
}

void write(Vel::AttrLogReplica& replica) {
    auto const sample = Vel::ptr_cast<Vel::Dir>(replica.root())->entry("sample");
    replica.write(*sample, Vel::attributeId<Sample>("bytes"), Vel::U64(0xfedcba9876543210));
}

// Carries all that `from` has to send, and returns a line for each message.
std::string carry(char const* who, Vel::StreamPeer& from, Vel::StreamPeer& to) {
    Bytes const bytes = StreamTest::takeOutput(from);
    to.input(bytes);
    std::string lines;
    for (std::span<Vel::U8 const> left = bytes; !left.empty();) {
        auto const [size, length] = Vel::NboAttrLog::messageLength(left);
        lines += who + StreamTest::hex(left.first(size + length)) + "\n";
        left = left.subspan(size + length);
    }
    return lines;
}

TEST(RecordedStreamTest, ThisMachineSendsTheRecordedBytes) {
    World world;
    Vel::AttrLogSource source(world.root, {.mayWrite = true});
    Vel::AttrLogReplica replica(Vel::Dir::newEntity(""), "root", {.path = {}, .wantsToWrite = true});
    replica.connected();
    auto const reader = source.newReader();
    carry("", replica, *reader);  // the hello, which names the modules of this very program
    std::string lines = carry("source ", *reader, replica);
    world.change();
    lines += carry("source ", *reader, replica);
    write(replica);
    lines += carry("reader ", replica, *reader);
    lines += carry("source ", *reader, replica);
    if (std::getenv("MOX_RECORD_STREAM")) std::ofstream(fileName) << lines;
    EXPECT_EQ(lines, recorded());
    expectCopied(*Vel::ptr_cast<Vel::Dir>(replica.root()));
}

TEST(RecordedStreamTest, ThisMachineMakesTheSameOfTheRecordedBytes) {
    Vel::AttrLogReplica replica(Vel::Dir::newEntity(""), "root", {.path = {}, .wantsToWrite = true});
    replica.connected();
    StreamTest::takeOutput(replica);
    std::ifstream file(fileName);
    unsigned messages = 0;
    for (std::string who, hex; file >> who >> hex; ++messages) {
        Bytes const message = bytesOf(hex);
        if (who == "source") {
            replica.input(message);
        } else {
            write(replica);
            EXPECT_EQ(StreamTest::takeOutput(replica), message);
        }
    }
    EXPECT_GT(messages, 20u);
    ASSERT_EQ(replica.error(), "");
    EXPECT_EQ(replica.state(), Vel::AttrLogReplica::State::synced);
    expectCopied(*Vel::ptr_cast<Vel::Dir>(replica.root()));
}

// Hashes may be stored, and compared between machines.
TEST(HashedValuesTest, HaveTheSameNumbersOnEveryMachine) {
    EXPECT_EQ(Mox::UniqueId(1700000000, 4711, 9).hash(0), 0x12c0d6d2u);
    EXPECT_EQ(Mox::ChipSet(5, 6).hash(3), 0xe76482dau);
    EXPECT_EQ(Mox::IdSet(300, {1, 2, 3, 64, 255, 299}).hash(0), 0x7eb0d120u);
    EXPECT_EQ(Mox::IdSet(300, {1, 2, 3, 64, 255, 299}).hash(0xffffffff), 0xa91e498eu);
}

}  // namespace
}  // namespace RecordedStream

VEL_MODULE(RecordedStream, d1e93c7778e4bf36, RecordedStream::Sample);
