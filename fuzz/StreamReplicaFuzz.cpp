#include "Mox/Generation.h"
#include "Mox/PrefixTrie.h"
#include "test/Vel/stream/Tank.h"
#include "test/Vel/stream/ValueTable.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "Vel/stream/AttrLogReplica.h"
#include "Vel/stream/internal/StreamProtocol.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

// What a source sends, to a replica: any bytes. The first byte says whether a welcome, the types and a root come before
// them, and into pieces of what size they are cut. Nothing but an error may come of it, and no more may be held than a
// message that has not come wholly.

// A peer may tie entities to a circle, as a program may, and nobody frees those.
extern "C" char const* __asan_default_options() { return "detect_leaks=0"; }

namespace {

using Vel::U32;
using Vel::NboAttrLog::Compact;
using Vel::NboAttrLog::MessageKind;

void addTypes(Vel::NboAttrLog::BufferSm& sm) {
    sm.begin(MessageKind::welcome, 3) << Vel::streamVersion << true;
    sm.commit();
    U32 index = 0;
    for (char const* const name : {"Vel::Dir", "Mox::PrefixTrie", "Mox::PrefixTrieState", "Mox::GenerationEntity",
             "Cell::Status", "StreamTest::ValueTable", "StreamTest::Tank"}) {
        Vel::VelType const type = Vel::Registry::type(name);
        sm.begin(MessageKind::type, 0) << Compact{index++} << Vel::String(name) << Vel::String(type.moduleName())
                                       << type.moduleFingerprint();
        sm.commit();
    }
    sm.begin(MessageKind::announce, 0) << Compact{1} << Compact{0} << Compact{0} << Vel::String("d");
    sm.commit();
    // An entity whose values are asked to change, under an id that other inputs do not use.
    sm.begin(MessageKind::announce, 0) << Compact{63} << Compact{3} << Compact{1} << Compact{258}
                                       << Vel::String("written") << Vel::String("written");
    sm.commit();
    sm.begin(MessageKind::keySet, 0) << Compact{1} << Compact{258} << Vel::String("written") << Compact{63};
    sm.commit();
    sm.begin(MessageKind::announce, 0) << Compact{62} << Compact{6} << Compact{1} << Compact{258} << Vel::String("tank")
                                       << Vel::String("tank");
    sm.commit();
    sm.begin(MessageKind::keySet, 0) << Compact{1} << Compact{258} << Vel::String("tank") << Compact{62};
    sm.commit();
}

// Asks for changes, so that answers may come.
void write(Vel::AttrLogReplica& replica, Vel::Entity const& generation, unsigned& answers) {
    auto const count = [&](Vel::WriteAnswer const&) { ++answers; };
    constexpr auto id = Vel::attributeId<Mox::GenerationEntity>("generation");
    for (U32 i = 0; i < 2; ++i) {
        replica.write(generation, id, Mox::Generation(i, true), count);
        replica.writeIf(generation, id, Mox::Generation(), Mox::Generation(i, false), count);
    }
}

// The same of several values, and calls with and without a result.
void writeTogether(Vel::AttrLogReplica& replica, Vel::Entity const& tank, unsigned& answers) {
    using Tank = StreamTest::Tank;
    auto const count = [&](Vel::WriteAnswer const&) { ++answers; };
    replica.writeTogether(
        tank, {{Vel::attributeId<Tank>("low"), U32(1)}, {Vel::attributeId<Tank>("label"), Vel::String("l")}}, count);
    replica.call(tank, Vel::attributeId<Tank>("limitsIs"), {U32(1), U32(2)}, count);
    replica.call(tank, Vel::attributeId<Tank>("clear"), {}, count);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    if (size == 0) return 0;
    auto const place = Vel::Dir::newEntity("");
    place->entryIs(Mox::prefixTrieFactory("other"));
    Vel::StreamLimits limits;
    limits.frame = 4096;
    limits.entities = 64;
    limits.types = 16;
    limits.keys = 64;
    Vel::AttrLogReplica replica(place, "copy", {.path = {}, .wantsToWrite = true, .limits = limits});
    std::size_t const piece = 1 + (data[0] >> 1);
    bool const isPrepared = data[0] & 1;
    std::span<Vel::U8 const> left(data + 1, size - 1);
    // Twice: the second connection finds what the first one left.
    for (int connection = 0; connection < 2; ++connection) {
        replica.connected();
        if (isPrepared) {
            Vel::NboAttrLog::BufferSm sm;
            addTypes(sm);
            replica.input(sm.bytes());
            if (!replica.error().empty()) std::abort();
        }
        unsigned asked = 0, answers = 0;
        if (isPrepared) {
            auto const generation = Mox::generationEntityFactory("none");
            try {
                write(replica, *generation, answers);
                std::abort();  // it is no entity of the copy
            } catch (Vel::RangeException const&) {}
            write(replica, *Vel::ptr_cast<Vel::Dir>(replica.root())->entry("written"), answers);
            writeTogether(replica, *Vel::ptr_cast<Vel::Dir>(replica.root())->entry("tank"), answers);
            asked = 7;
        }
        for (auto rest = left; !rest.empty(); rest = rest.subspan(std::min(piece, rest.size()))) {
            replica.input(rest.first(std::min(piece, rest.size())));
            if (replica.inputHeld() > limits.frame + 4 || replica.entities() > limits.entities) std::abort();
            replica.outputTaken(replica.output(100).size());
        }
        replica.closed("end");
        if (answers != asked) std::abort();
    }
    return 0;
}

VEL_MODULE(FuzzTables, a343ff08781ecde1, StreamTest::Entry, StreamTest::ValueTable, StreamTest::Tank);
