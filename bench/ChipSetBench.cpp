// Sets of chips: two words against the standard bitmap of as many bits.

#include "Bench.h"

#include "Mox/ChipSet.h"
#include "Mox/ChipSetIter.h"

#include <bitset>
#include <random>

using Mox::ChipId;
using Mox::ChipSet;
using StdSet = std::bitset<128>;

// Apart and not inlined, so that a disassembler shows them.
[[gnu::noinline]] unsigned nextChip(ChipSet const& set, ChipId id) { return set.nextChipId(id).value(); }
[[gnu::noinline]] unsigned sumOfChips(ChipSet const& set) {
    unsigned sum = 0;
    for (ChipId const id : set) sum += id.value();
    return sum;
}

namespace {

unsigned sumByIter(ChipSet const& set) {
    unsigned sum = 0;
    for (Mox::ChipSetIter i(set); i; ++i) sum += i.key().value();
    return sum;
}
unsigned sumByNext(ChipSet const& set) {
    unsigned sum = 0;
    for (ChipId id = set.firstChipId(); id != ChipId(ChipId::null());
         id = ChipId(static_cast<Mox::U8>(nextChip(set, id))))
        sum += id.value();
    return sum;
}
unsigned sumOfBits(StdSet const& set) {
    unsigned sum = 0;
    for (std::size_t id = set._Find_first(); id < set.size(); id = set._Find_next(id)) sum += static_cast<unsigned>(id);
    return sum;
}

template <class Set, class F>
void measure(char const* what, char const* who, std::vector<Set> const& sets, F function) {
    Bench::add(what, who, [=](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) {
            auto result = function(sets[i++ % sets.size()]);
            benchmark::DoNotOptimize(result);
        }
    });
}

void addCount(unsigned chips, std::mt19937& random) {
    std::vector<ChipSet> sets(64);
    std::vector<StdSet> bits(64);
    for (std::size_t i = 0; i < sets.size(); ++i) {
        for (unsigned n = 0; n < chips; ++n) {
            auto const id = static_cast<Mox::U8>(chips == 127 ? n : random() % 127);
            sets[i].chipIdIs(ChipId(id), true);
            bits[i].set(id);
        }
        unsigned const wanted = sumOfBits(bits[i]);
        Bench::require(sumOfChips(sets[i]) == wanted && sumByNext(sets[i]) == wanted && sumByIter(sets[i]) == wanted,
            "sums of members");
        Bench::require(sets[i].chipIds() == bits[i].count(), "numbers of members");
    }
    std::string const of = std::to_string(chips) + " chips";
    measure(("iterate " + of).c_str(), "Mox::ChipSet, range for", sets, sumOfChips);
    measure(("iterate " + of).c_str(), "Mox::ChipSetIter", sets, sumByIter);
    measure(("iterate " + of).c_str(), "Mox::ChipSet::nextChipId", sets, sumByNext);
    measure(("iterate " + of).c_str(), "std::bitset", bits, sumOfBits);
    measure(("count " + of).c_str(), "Mox::ChipSet", sets, [](ChipSet const& set) { return set.chipIds(); });
    measure(("count " + of).c_str(), "std::bitset", bits, [](StdSet const& set) { return set.count(); });
}

}  // namespace

int main(int argc, char** argv) {
    std::mt19937 random(3);
    for (unsigned const chips : {4u, 30u, 127u}) addCount(chips, random);
    return Bench::run(argc, argv);
}
