// Hashes of keys: a record's fields one by one with Vel::Hash, against hashes of the same bytes.

#include "Bench.h"

#include "Mox/UniqueId.h"

#include "Vel/base/Hash.h"

#include <cstring>
#include <functional>
#include <random>
#include <unordered_set>

#include <absl/hash/hash.h>
#define XXH_INLINE_ALL
#include <xxhash.h>

namespace {

using Vel::U32;
using Vel::U64;

struct Key {
    U64 id;
    U32 index;
    template <class H> friend H AbslHashValue(H h, Key const& key) {
        return H::combine(std::move(h), key.id, key.index);
    }
};

struct Bytes {
    char bytes[12];
    explicit Bytes(Key const& key) {
        std::memcpy(bytes, &key.id, 8);
        std::memcpy(bytes + 8, &key.index, 4);
    }
};

U32 byVel(Key const& key) { return Vel::Hash(0).hashMix<8>(key.id).hashMix<4>(key.index).result(); }

// The combination that one finds most often; std::hash of a number is the number itself.
std::size_t byCombining(Key const& key) {
    std::size_t seed = std::hash<U64>()(key.id);
    seed ^= std::hash<U32>()(key.index) + 0x9e3779b9 + (seed << 6) + (seed >> 2);
    return seed;
}

// The C++ library's hash of bytes, which is also that of a std::string.
std::size_t byBytes(Key const& key) {
    Bytes const bytes(key);
    return std::hash<std::string_view>()({bytes.bytes, sizeof bytes.bytes});
}
U64 byXxh3(Key const& key) {
    Bytes const bytes(key);
    return XXH3_64bits(bytes.bytes, sizeof bytes.bytes);
}
U64 byXxh64(Key const& key) {
    Bytes const bytes(key);
    return XXH64(bytes.bytes, sizeof bytes.bytes, 0);
}

constexpr std::size_t count = 1024;
constexpr std::size_t mask = count - 1;

// How many of a table's 2^16 buckets keys get that differ in few bits, as counters and flags do. By chance: 41427.
template <class Hash> std::size_t bucketsOfSimilarKeys(Hash hash) {
    std::vector<bool> used(65536);
    std::size_t buckets = 0;
    for (U64 id = 0; id < 256; ++id) {
        for (U32 index = 0; index < 256; ++index) {
            auto bucket = used[hash(Key{id << 24, index << 8}) & 0xFFFF];
            buckets += bucket ? 0 : 1;
            bucket = true;
        }
    }
    return buckets;
}

template <class Hash> void add(std::vector<Key> const& keys, char const* name, Hash hash) {
    std::unordered_set<U64> seen;
    for (Key const& key : keys) {
        seen.insert(hash(key));
        Bench::require(hash(key) == hash(Key(key)), name);
    }
    Bench::require(seen.size() == keys.size(), "a thousand keys have a thousand hashes");
    std::printf("    %-36s %6zu of 65536 buckets\n", name, bucketsOfSimilarKeys(hash));
    Bench::add("hash of 12 bytes", name, [&keys, hash](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) benchmark::DoNotOptimize(hash(keys[i++ & mask]));
    });
    // What a table waits for: the next key depends on the hash of the last one.
    Bench::add("hash of 12 bytes, one after the other", name, [&keys, hash](benchmark::State& state) {
        U64 last = 0;
        for (auto _ : state) last = hash(Key{keys[0].id + last, 1});
        benchmark::DoNotOptimize(last);
    });
}

}  // namespace

int main(int argc, char** argv) {
    std::mt19937_64 random(42);
    std::vector<Key> keys;
    for (std::size_t i = 0; i < count; ++i) keys.push_back({random(), static_cast<U32>(i)});
    std::printf("65536 keys that differ in few bits; at random they would fill about 41427\n");
    add(keys, "Vel::Hash", [](Key const& key) { return byVel(key); });
    add(keys, "shift and add of std::hash", [](Key const& key) { return byCombining(key); });
    add(keys, "std::hash of the bytes", [](Key const& key) { return byBytes(key); });
    add(keys, "XXH3_64bits, inline", [](Key const& key) { return byXxh3(key); });
    add(keys, "XXH64, inline", [](Key const& key) { return byXxh64(key); });
    add(keys, "absl::Hash", [](Key const& key) { return absl::Hash<Key>()(key); });

    std::vector<Mox::UniqueId> ids;
    for (std::size_t i = 0; i < count; ++i) ids.push_back(Mox::UniqueId::uniqueIdIs(random()));
    Bench::add("hash of a Mox::UniqueId", "UniqueId::hash", [&ids](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) benchmark::DoNotOptimize(ids[i++ & mask].hash(0));
    });
    return Bench::run(argc, argv);
}
