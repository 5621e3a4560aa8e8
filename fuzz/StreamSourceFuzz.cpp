#include "Mox/Generation.h"
#include "Mox/PrefixTrie.h"
#include "test/Vel/stream/Tank.h"
#include "test/Vel/stream/ValueTable.h"

#include "Vel/describe/Module.h"
#include "Vel/entity/Together.h"
#include "Vel/stream/AttrLogReplica.h"
#include "Vel/stream/AttrLogSource.h"

#include <cstdint>
#include <cstdlib>

// What a reader sends, to a source that takes changes. Each step begins with a byte: bytes from the reader (its low
// bits say how many), a change of what is served, or some output taken. A replica beside it, which behaves, has to
// follow.

namespace {

class Input {
public:
    Input(std::uint8_t const* data, std::size_t size) : left_(data, size) {}
    Vel::U8 byte() {
        if (left_.empty()) return 0;
        Vel::U8 const first = left_[0];
        left_ = left_.subspan(1);
        return first;
    }
    std::span<Vel::U8 const> bytes(std::size_t count) {
        auto const taken = left_.first(std::min(count, left_.size()));
        left_ = left_.subspan(taken.size());
        return taken;
    }
    bool isEmpty() const { return left_.empty(); }

private:
    std::span<Vel::U8 const> left_;
};

void carry(Vel::StreamPeer& from, Vel::StreamPeer& to) {
    while (from.wantsOutput()) {
        auto const bytes = from.output(1000);
        to.input(bytes);
        from.outputTaken(bytes.size());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Input input(data, size);
    auto const root = Vel::Dir::newEntity("d");
    auto const trie = Mox::prefixTrieFactory("t");
    root->entryIs(trie);
    root->entryIs(Mox::generationEntityFactory("g"));
    auto const table = StreamTest::ValueTable::newEntity("v");
    root->entryIs(table);
    auto const tank = StreamTest::Tank::newEntity("w");
    root->entryIs(tank);
    Vel::AttrLogSource source(root, {.logSize = 0, .mayWrite = true});
    auto const good = source.newReader();
    Vel::AttrLogReplica replica(Vel::Dir::newEntity("d"), {});
    replica.connected();

    auto const fuzzed = source.newReader();
    if (input.byte() & 1) {
        Vel::AttrLogReplica writer(Vel::Dir::newEntity("d"), {.path = {}, .wantsToWrite = true});
        writer.connected();
        carry(writer, *fuzzed);
    }
    while (!input.isEmpty()) {
        Vel::U8 const step = input.byte();
        Vel::String const key(std::string_view(&"abcdefgh"[step & 7], 1));
        switch (step >> 5) {
        case 0:
        case 1:
            fuzzed->input(input.bytes(step & 63));
            break;
        case 2:
            trie->newChildIs(key);
            table->entryIs(key, StreamTest::Entry(table->entry(key).number() + step));
            break;
        case 3:
            trie->prefixChildDel(key);
            if (step & 8) table->entryDel(key);
            break;
        case 4:
            trie->presentIs(step & 1);
            if (step & 2)
                Vel::together(*tank, [&] {
                    tank->labelIs(key);
                    tank->highIs(step);
                });
            break;
        case 5:
            fuzzed->outputTaken(fuzzed->output(1 + (step & 31)).size());
            break;
        case 6:
            carry(*good, replica);
            break;
        default:
            carry(replica, *good);
            break;
        }
    }
    carry(replica, *good);
    carry(*good, replica);
    if (!replica.error().empty() || replica.state() != Vel::AttrLogReplica::State::synced) std::abort();
    auto const copy = Vel::ptr_cast<Mox::PrefixTrie>(Vel::ptr_cast<Vel::Dir>(replica.root())->entry("t"));
    if (!copy || copy->prefixChildren() != trie->prefixChildren() || copy->present() != trie->present()) std::abort();
    auto const tableCopy = Vel::ptr_cast<StreamTest::ValueTable>(Vel::ptr_cast<Vel::Dir>(replica.root())->entry("v"));
    if (!tableCopy) std::abort();
    auto const tankCopy = Vel::ptr_cast<StreamTest::Tank>(Vel::ptr_cast<Vel::Dir>(replica.root())->entry("w"));
    if (!tankCopy || tankCopy->low() != tank->low() || tankCopy->high() != tank->high() ||
        !(tankCopy->label() == tank->label()) || tankCopy->count() != tank->count())
        std::abort();
    table->visitKeys([&](Vel::String const& key) {
        if (!tableCopy->entryExists(key) || !(tableCopy->entry(key) == table->entry(key))) std::abort();
    });
    tableCopy->visitKeys([&](Vel::String const& key) {
        if (!table->entryExists(key)) std::abort();
    });
    return 0;
}

VEL_MODULE(FuzzTables, a343ff08781ecde1, StreamTest::Entry, StreamTest::ValueTable, StreamTest::Tank);
