#include "test/Vel/stream/ValueTable.h"

#include "Vel/describe/Module.h"
#include "Vel/describe/ModuleDescription.h"
#include "Vel/stream/AttrLogReplica.h"
#include "Vel/stream/internal/StreamProtocol.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

// What a source sends, to a replica that copies types of other versions by name and others by their descriptions: any
// bytes, behind descriptions, types and a root. Twice, so that the second connection finds what the first one left.

// A peer may tie entities to a circle, as a program may, and nobody frees those.
extern "C" char const* __asan_default_options() { return "detect_leaks=0"; }

namespace {

using Vel::String;
using Vel::U32;
using Vel::NboAttrLog::BufferSm;
using Vel::NboAttrLog::Compact;
using Vel::NboAttrLog::MessageKind;

constexpr char unknown[] = "module M\n"
                           "type M::Mood form 1 base - flags 8 ops 14336\n"
                           "attribute 2 value kind 0 ops 3 value U8 key - result -\n"
                           "attribute 3 calm kind 2 ops 1 value U8 key - result - is 7\n"
                           "type M::Own form 0 base - flags 256 ops 0\n"
                           "type M::E form 2 base Vel::Entity flags 0 ops 0\n"
                           "attribute 258 mood kind 8 ops 3 value M::Mood key - result -\n"
                           "attribute 259 text kind 8 ops 3 value Vel::String key - result -\n"
                           "attribute 260 peer kind 8 ops 3 value M::E key - result -\n"
                           "attribute 261 value kind 5 ops 39 value U8 key Vel::String result - values\n"
                           "attribute 262 part kind 5 ops 39 value M::E key Vel::String result - instances\n"
                           "attribute 263 ref kind 5 ops 39 value Vel::Entity key U8 result - references\n"
                           "attribute 264 own kind 5 ops 39 value U8 key M::Own result - values\n";

// The tables' module with an attribute more, which makes its members, and the others under other numbers.
std::string otherTables() {
    auto const& module = Vel::typeOf<StreamTest::ValueTable>().module();
    std::string text = Vel::ModuleDescription::spellingOf(module).stdString();
    for (int id = 260; id >= 258; --id) {
        std::string const from = "attribute " + std::to_string(id);
        text.replace(text.find(from), from.size(), "attribute " + std::to_string(id + 1));
    }
    text.insert(text.find("attribute 259"),
        "attribute 258 part kind 5 ops 39 value StreamTest::ValueTable key Vel::String result - instances\n");
    return text;
}

void describe(BufferSm& sm, char const* name, std::string const& text) {
    sm.begin(MessageKind::description, 0)
        << String(name) << Vel::ModuleDescription::fingerprintOf(text) << String(text);
    sm.commit();
}

void addType(BufferSm& sm, U32 index, char const* name, char const* module, Vel::U64 fingerprint) {
    sm.begin(MessageKind::type, 0) << Compact{index} << String(name) << String(module) << fingerprint;
    sm.commit();
}

void begin(Vel::AttrLogReplica& replica) {
    BufferSm sm;
    sm.begin(MessageKind::welcome, 3) << Vel::streamVersion << true;
    sm.commit();
    std::string const other = otherTables();
    describe(sm, "M", unknown);
    describe(sm, "PolicyTables", other);
    Vel::VelType const dir = Vel::Registry::type("Vel::Dir");
    addType(sm, 0, "Vel::Dir", "Dir", dir.moduleFingerprint());
    addType(sm, 1, "M::E", "M", Vel::ModuleDescription::fingerprintOf(unknown));
    addType(sm, 2, "StreamTest::ValueTable", "PolicyTables", Vel::ModuleDescription::fingerprintOf(other));
    sm.begin(MessageKind::announce, 0) << Compact{1} << Compact{0} << Compact{0} << String("d");
    sm.commit();
    replica.input(sm.bytes());
    if (!replica.error().empty()) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Vel::StreamLimits limits;
    limits.frame = 4096;
    limits.entities = 64;
    limits.keys = 64;
    limits.copySize = 1u << 20;
    auto const place = Vel::Dir::newEntity("");
    Vel::AttrLogReplica replica(
        place, "copy", {.path = {}, .limits = limits, .policy = {.byName = true, .described = true}});
    for (int connection = 0; connection < 2; ++connection) {
        replica.connected();
        begin(replica);
        replica.input({data, size});
        if (replica.entities() > limits.entities || replica.copySize() > 2 * limits.copySize) std::abort();
        replica.closed("end");
    }
    return 0;
}

VEL_MODULE(PolicyTables, ad339520eb2e7540, StreamTest::Entry, StreamTest::ValueTable);
