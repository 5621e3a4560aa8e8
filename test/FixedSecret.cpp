#include "Vel/base/TableHash.h"

// A part of every program that must run the same way each time: tests, simulations, fuzzers, benchmarks. The order in
// which a trie's children are visited follows from the secret.
namespace {

[[maybe_unused]] Vel::TableSecret const drawnNever = Vel::ProcessSecret::valueIs(Vel::TableSecret::fromSeed(1));

}  // namespace
