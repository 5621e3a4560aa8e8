#include "Mox/IdSet.h"
#include "fuzz/Thorough.h"
#include "test/Mox/IdSetModel.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>

// Id sets, by the first byte modulo 3: operations in lock step with a plain model (of a size, then six bytes a step);
// the checked parser of range lists (of a size, then the text); the reader of the attribute log. Few steps, sets that
// are small mostly, and of one input in sixteen all that can be asked of a set: so there are far more runs, and nothing
// is found but by many.
// libFuzzer: -max_len=90 -use_counters=0

namespace {

[[noreturn]] void fail(std::string const& what) {
    std::fprintf(stderr, "%s\n", what.c_str());
    std::abort();
}
void require(bool good, char const* what) {
    if (!good) fail(what);
}

class Bytes {
public:
    explicit Bytes(std::span<std::uint8_t const> bytes) : bytes_(bytes) {}

    std::size_t left() const { return bytes_.size(); }
    unsigned next() {  // 0 at the end
        if (bytes_.empty()) return 0;
        unsigned const byte = bytes_[0];
        bytes_ = bytes_.subspan(1);
        return byte;
    }
    unsigned next16() {
        unsigned const high = next();
        return high << 8 | next();
    }
    unsigned nextId() {  // often about the last bucket
        unsigned const id = next16();
        return id % 8 == 7 ? 16256 + id / 8 % 192 : id;
    }
    std::uint16_t nextSize() {  // often one of those where something changes
        static constexpr std::uint16_t edges[] = {0, 1, 63, 64, 65, 128, 200, 256};
        static constexpr std::uint16_t large[] = {16320, 16321, 16384, 20000, 65535, 4096, 1000, 640};
        unsigned const choice = next();
        if (choice >= 240) return large[next() % std::size(large)];
        return choice % 2 ? edges[choice / 2 % std::size(edges)] : static_cast<std::uint16_t>(next() * 2);
    }
    std::span<std::uint8_t const> rest() const { return bytes_; }

private:
    std::span<std::uint8_t const> bytes_;
};

std::uint64_t wordOf(unsigned byte) {
    switch (byte % 4) {
    case 0:
        return IdSetModel::ones;
    case 1:
        return std::uint64_t(1) << (byte / 4);
    case 2:
        return IdSetModel::ones << (byte / 4);
    default:
        return (byte / 4) * std::uint64_t(0x9e3779b97f4a7c15);
    }
}

void requireEqual(Mox::IdSet const& set, IdSetModel const& model, bool asksAll) {
    if (auto const what = asksAll ? difference(set, model) : differentBuckets(set, model); !what.empty()) fail(what);
}

void operations(Bytes bytes, bool asksAll) {
    std::uint16_t const size = bytes.nextSize();
    std::array<IdSetPair, 3> pairs{idSetPair(size), idSetPair(size), idSetPair(size)};
    for (unsigned steps = 0; bytes.left() >= 6 && steps < 8; ++steps) {
        unsigned const which = bytes.next();
        IdSetStep step;
        step.operation = which / 9;
        step.a = bytes.nextId();
        step.b = step.a + bytes.next16();
        step.word = wordOf(bytes.next());
        if (auto const what = take(step, pairs[which % 3], pairs[which / 3 % 3]); !what.empty()) fail(what);
    }
    for (IdSetPair const& pair : pairs) requireEqual(pair.set, pair.model, asksAll);
}

void text(Bytes bytes, bool asksAll) {
    std::uint16_t const size = bytes.nextSize();
    std::string_view const text(reinterpret_cast<char const*>(bytes.rest().data()), bytes.left());
    auto const checked = Mox::IdSet::checked(size, text);
    if (!checked) {
        require(checked.error().offset <= text.size(), "an error outside the text");
        require(!checked.error().text.empty(), "an error without a text");
        return;
    }
    requireEqual(*checked, IdSetModel::named(size, text), asksAll);
    Vel::String const string = text;
    Mox::IdSet const prototype(size);
    auto it = string.begin();
    require(Mox::sequenceToValue(it, string.end(), &prototype) == *checked, "the two parsers differ");
    require(it == string.end(), "the two parsers end at different places");
    Vel::String const printed = checked->stringValue();
    auto const again = Mox::IdSet::checked(size, printed);
    require(again && again->stringValue() == printed, "the printed text does not parse back");
}

void stream(Bytes bytes, bool asksAll) {
    auto const read = Vel::checkedRead<Mox::IdSet>(bytes.rest());
    if (!read) return require(read.error().offset <= bytes.left(), "an error outside the bytes");
    IdSetModel model{read->size()};
    for (std::size_t at = 2; at + 9 < bytes.left(); at += 9)
        model.buckets[bytes.rest()[at]] = Vel::NboAttrLog::load<std::uint64_t>(&bytes.rest()[at + 1]);
    requireEqual(*read, model, asksAll);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Bytes bytes({data, size});
    bool const asksAll = isThorough(bytes.rest());
    switch (bytes.next() % 3) {
    case 0:
        operations(bytes, asksAll);
        break;
    case 1:
        text(bytes, asksAll);
        break;
    default:
        stream(bytes, asksAll);
    }
    return 0;
}
