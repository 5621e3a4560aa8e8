// Changing an entity's attribute and telling its observers.

#include "Bench.h"
#include "Level.h"

#include "Vel/describe/Module.h"

#include <functional>

namespace Bench {

namespace {

// What one would write without a framework.
class PlainGauge {
public:
    void levelIs(Vel::U32 v) {
        if (level_ == v) return;
        level_ = v;
        for (auto const& observer : observers) observer(258);
    }
    std::vector<std::function<void(Vel::AttributeId)>> observers;

private:
    Vel::U32 level_ = 0;
};

void addNotifying(std::size_t observers) {
    std::string const group = "notify/" + std::to_string(observers) + (observers == 1 ? " observer" : " observers");
    Bench::add(group, "velSet of an entity", [observers](benchmark::State& state) {
        auto const entity = Level::newEntity("level");
        std::vector<Counter> counters(observers);
        for (Counter& counter : counters) counter.notifierIs(entity.get());
        Vel::U32 level = 0;
        for (auto _ : state) entity->levelIs(++level);
        for (Counter const& counter : counters) Bench::require(counter.count == level, "an observer of an entity");
    });
    Bench::add(group, "vector of std::function", [observers](benchmark::State& state) {
        PlainGauge gauge;
        std::vector<std::size_t> counters(observers);
        for (std::size_t& counter : counters) gauge.observers.emplace_back([&counter](Vel::AttributeId) { ++counter; });
        Vel::U32 level = 0;
        for (auto _ : state) {
            gauge.levelIs(++level);
            benchmark::ClobberMemory();
        }
        for (std::size_t const counter : counters) Bench::require(counter == level, "an observer by std::function");
    });
}

}  // namespace
}  // namespace Bench

VEL_MODULE(NotifyBench, 28509d1c5b6af9fb, Bench::Level);

int main(int argc, char** argv) {
    for (std::size_t const observers : {0, 1, 10}) Bench::addNotifying(observers);
    return Bench::run(argc, argv);
}
