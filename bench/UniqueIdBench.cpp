#include "Bench.h"

#include "Mox/UniqueId.h"
#include "Vel/base/System.h"

#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid.hpp>

#include <unordered_set>

#include <uuid/uuid.h>

// Minting an identifier that no other process mints, against the usual libraries for random ones.

namespace {

void checkAgreement() {
    constexpr std::size_t count = 1000;
    std::unordered_set<Mox::UniqueId> ids;
    boost::uuids::random_generator generator;
    std::unordered_set<std::string> others;
    for (std::size_t i = 0; i < count; ++i) {
        ids.insert(Mox::UniqueId::generateUniqueId());
        uuid_t id;
        uuid_generate(id);
        others.emplace(reinterpret_cast<char const*>(id), sizeof id);
        boost::uuids::uuid const other = generator();
        others.emplace(other.begin(), other.end());
    }
    Bench::require(ids.size() == count && others.size() == 2 * count, "identifiers repeat");
}

}

int main(int argc, char** argv) {
    checkAgreement();
    Bench::add("mint an identifier", "Mox::UniqueId", [](benchmark::State& state) {
        for (auto _ : state) {
            Mox::UniqueId id;
            benchmark::DoNotOptimize(id);
        }
    });
    Bench::add("mint an identifier", "uuid_generate", [](benchmark::State& state) {
        uuid_t id;
        for (auto _ : state) {
            uuid_generate(id);
            benchmark::DoNotOptimize(id);
        }
    });
    Bench::add("mint an identifier", "boost::uuids::random_generator", [](benchmark::State& state) {
        boost::uuids::random_generator generator;
        for (auto _ : state) {
            auto id = generator();
            benchmark::DoNotOptimize(id);
        }
    });
    Bench::add("what minting asks", "Vel::System::currentTime", [](benchmark::State& state) {
        for (auto _ : state) benchmark::DoNotOptimize(Vel::System::currentTime());
    });
    Bench::add("what minting asks", "SystemCalls::currentSeconds", [](benchmark::State& state) {
        for (auto _ : state) benchmark::DoNotOptimize(Vel::System::calls().currentSeconds());
    });
    Bench::add("what minting asks", "SystemCalls::getpid", [](benchmark::State& state) {
        for (auto _ : state) benchmark::DoNotOptimize(Vel::System::calls().getpid());
    });
    return Bench::run(argc, argv);
}
