#include "Vel/base/TableHash.h"

#include "Vel/base/System.h"

#include <mutex>

namespace Vel {

constinit TableSecret ProcessSecret::value_ = {};

namespace {

constinit std::mutex drawing;

// The finisher of SplitMix64, by Sebastiano Vigna (public domain, prng.di.unimi.it/splitmix64.c).
U64 mixed(U64 x) {
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ul;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebul;
    return x ^ (x >> 31);
}

}  // namespace

TableSecret TableSecret::fromSeed(U64 seed) noexcept {
    TableSecret secret;
    for (U64& word : secret.words) word = mixed(seed += 0x9e3779b97f4a7c15ul) | 1;
    return secret;
}

TableSecret TableSecret::drawn() noexcept {
    TableSecret secret;
    System::calls().random(secret.words, sizeof secret.words);
    for (U64& word : secret.words) word |= 1;
    return secret;
}

void ProcessSecret::draw() noexcept {
    std::lock_guard const lock(drawing);
    if (value_.words[0] == 0) valueIs(TableSecret::drawn());
}

// Sets words[0] last: value() takes a non-zero words[0] as the sign that the whole secret is there.
TableSecret ProcessSecret::valueIs(TableSecret const& secret) noexcept {
    TableSecret const before = value_;
    for (unsigned i = 3; i > 0; --i) value_.words[i] = secret.words[i];
    __atomic_store_n(&value_.words[0], secret.words[0], __ATOMIC_RELEASE);
    return before;
}

}  // namespace Vel
