// Reading an attribute by its number, through the registry's records, compared with a call that the compiler sees.

#include "Bench.h"
#include "ConditionOrCountStat.h"

#include "Vel/describe/Module.h"

namespace {

using Bench::ConditionOrCountStat;
using Vel::AttributeOp;

constexpr std::size_t mask = Bench::ValueSet::count - 1;

}  // namespace

// For the disassembler: what the compiler makes of a get by number.
int getById(void* result, Vel::VelType type, void* object, Vel::AttributeId id) {
    return type.attributeOp(result, object, id, AttributeOp::get);
}

int main(int argc, char** argv) {
    auto values = Bench::valueSets()[0].values;
    Vel::VelType const type = Vel::Registry::type("Mox::ConditionOrCountStat");
    Vel::VelAttr const changes = *type.attributeOfId(Vel::firstValueAttributeId + 1);
    auto const getChanges = [&](ConditionOrCountStat& value) {
        Vel::U32 result = 0;
        type.glue().genericIfAttributeOp(&result, &value, changes, AttributeOp::get, nullptr, nullptr);
        return result;
    };
    auto const getChangesById = [&](ConditionOrCountStat& value) {
        Vel::U32 result = 0;
        type.attributeOp(&result, &value, Vel::firstValueAttributeId + 1, AttributeOp::get);
        return result;
    };
    for (auto& value : values) {
        Bench::require(getChanges(value) == value.changes(), "get by attribute");
        Bench::require(getChangesById(value) == value.changes(), "get by attribute id");
    }

    Bench::add("get an attribute", "direct call", [&](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) benchmark::DoNotOptimize(values[i++ & mask].changes());
    });
    Bench::add("get an attribute", "by VelAttr", [&](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) benchmark::DoNotOptimize(getChanges(values[i++ & mask]));
    });
    Bench::add("get an attribute", "by attribute id", [&](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) benchmark::DoNotOptimize(getChangesById(values[i++ & mask]));
    });
    Bench::add("find a type", "Registry::type, by name", [&](benchmark::State& state) {
        for (auto _ : state) benchmark::DoNotOptimize(Vel::Registry::type("Mox::ConditionOrCountStat"));
    });
    return Bench::run(argc, argv);
}
