#pragma once

#include "Mox/Events.h"

#include <cmath>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

// The record of most benchmarks, and sets of values of it.
namespace Bench {

using Mox::ConditionOrCountStat;

inline constexpr char format[] =
    "Value('Mox::ConditionOrCountStat', ** {'current': %s, 'changes': %u, 'lastChange': %.17g})";

// How printf writes the value, into at least 256 bytes; returns the length.
inline int printed(char* to, ConditionOrCountStat const& v) {
    return std::snprintf(to, 256, format, v.current() ? "True" : "False", v.changes(), v.lastChange().value());
}

// Whether printf's 17 digits are also the shortest that read back: only such values are fair to compare, since printf
// cannot find the shortest. About half of all doubles are of this kind.
inline bool printfAgrees(ConditionOrCountStat const& v) {
    char text[256];
    int const size = printed(text, v);
    return Vel::valueToStrep(v).view() == std::string_view(text, static_cast<std::size_t>(size));
}

struct ValueSet {
    std::string name;
    std::vector<ConditionOrCountStat> values;   // `count` of them, unless more are asked for
    static constexpr std::size_t count = 1024;  // a power of two; more than many branch predictors learn by heart
};

template <class Make> ValueSet valueSet(char const* name, std::size_t count, Make make) {
    ValueSet set{name, {}};
    std::mt19937_64 random(42);
    while (set.values.size() < count) {
        ConditionOrCountStat const value = make(random);
        if (printfAgrees(value)) set.values.push_back(value);
    }
    return set;
}

inline std::vector<ValueSet> valueSets(std::size_t count = ValueSet::count) {
    using Random = std::mt19937_64;
    return {
        valueSet("small numbers", count,  // 7, 12.125
            [](Random& r) {
                return ConditionOrCountStat(
                    r() % 2 != 0, Vel::U32(r() % 100), double(r() % 100) + double(r() % 7 + 1) / 8);
            }),
        valueSet("microsecond time stamps", count,  // 1834203, 1700000000.123457
            [](Random& r) {
                return ConditionOrCountStat(
                    r() % 2 != 0, Vel::U32(r() >> (32 + r() % 32)), (1.7e15 + double(r() % 100000000000000)) / 1e6);
            }),
        valueSet("random doubles", count,  // 1834203, 6832.8457310295671; 17 digits, no exponent
            [](Random& r) {
                double const unit = double(r() >> 11) / double(1ul << 53);
                return ConditionOrCountStat(r() % 2 != 0, Vel::U32(r() >> (32 + r() % 32)),
                    std::pow(10.0, double(r() % 18) - 3) * (1 + 8 * unit));
            }),
    };
}

}  // namespace Bench
