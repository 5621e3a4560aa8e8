#include "Mox/Generation.h"
#include "test/Vel/stream/Tank.h"
#include "test/Vel/stream/ValueTable.h"

#include "Vel/describe/Module.h"
#include "Vel/stream/AttrLogReplica.h"
#include "Vel/stream/AttrLogServer.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

// What a reader sends to a server that hides the entity "s" from it, and lets it only read "w". Each step begins with a
// byte: bytes from the reader (its low bits say how many), a change, or some output taken. No byte of what is hidden
// may come out, and nothing that the reader may not change may change.

namespace {

constexpr char secret[] = "SECRET";

class Few final : public Vel::StreamRights {
public:
    Vel::Access of(Vel::String const& path) const override {
        if (path.view().starts_with('s')) return Vel::Access::none;
        return path.view().starts_with('w') ? Vel::Access::read : Vel::Access::all;
    }
    Vel::Access most() const override { return Vel::Access::all; }
    Vel::Access least() const override { return Vel::Access::none; }
};

class Input {
public:
    Input(std::uint8_t const* data, std::size_t size) : left_(data, size) {}
    Vel::U8 byte() { return left_.empty() ? Vel::U8(0) : bytes(1)[0]; }
    std::span<Vel::U8 const> bytes(std::size_t count) {
        auto const taken = left_.first(std::min(count, left_.size()));
        left_ = left_.subspan(taken.size());
        return taken;
    }
    bool isEmpty() const { return left_.empty(); }

private:
    std::span<Vel::U8 const> left_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Input input(data, size);
    auto const root = Vel::Dir::newEntity("d");
    auto const hidden = StreamTest::Tank::newEntity("s"), shown = StreamTest::Tank::newEntity("w");
    auto const table = StreamTest::ValueTable::newEntity("v");
    hidden->labelIs(secret);
    for (Vel::Ptr<Vel::Entity> const& entity :
        {Vel::Ptr<Vel::Entity>(hidden), Vel::Ptr<Vel::Entity>(shown), Vel::Ptr<Vel::Entity>(table)})
        root->entryIs(entity);
    shown->nextIs(hidden);
    Vel::AttrLogServer server(root, {.logSize = 0});
    auto const all = server.newReader();  // so that what is hidden has an id
    Vel::AttrLogReplica replica(Vel::Dir::newEntity("d"), {}), writer(Vel::Dir::newEntity("d"), {.wantsToWrite = true});
    replica.connected();
    all->input(replica.output(1 << 20));
    while (all->wantsOutput()) all->outputTaken(all->output(1000).size());

    auto const fuzzed = server.newReader(true, nullptr, {}, std::make_shared<Few>());
    if (input.byte() & 1) {
        writer.connected();
        fuzzed->input(writer.output(1 << 20));
    }
    std::string sent;
    auto const take = [&](std::size_t limit) {
        auto const bytes = fuzzed->output(limit);
        sent.append(bytes.begin(), bytes.end());
        fuzzed->outputTaken(bytes.size());
        if (sent.find(secret) != sent.npos) std::abort();
        if (sent.size() >= sizeof secret) sent.erase(0, sent.size() - sizeof secret + 1);
    };
    Vel::U32 count = 0;
    while (!input.isEmpty()) {
        Vel::U8 const step = input.byte();
        switch (step >> 6) {
        case 0:
            fuzzed->input(input.bytes(step & 63));
            break;
        case 1:
            hidden->countIs(count = step);
            shown->nextIs(step & 1 ? hidden : nullptr);
            break;
        case 2:
            root->entryDel("s");
            if (step & 1) hidden->highIs(step);
            root->entryIs(hidden);
            break;
        default:
            take(1 + (step & 63));
            break;
        }
    }
    for (int i = 0; i < 1000 && fuzzed->wantsOutput(); ++i) take(1000);
    if (hidden->count() != count || hidden->label() != Vel::String(secret) || shown->low() != 0) std::abort();
    return 0;
}

VEL_MODULE(FuzzTables, a343ff08781ecde1, StreamTest::Entry, StreamTest::ValueTable, StreamTest::Tank);
