// Mounts between processes over a Unix socket, beside what else tells other processes of a change: publish and
// subscribe of Redis and of ZeroMQ, and a bare socket. Writes that are answered, beside those of Redis and calls of
// gRPC. Every role is a process of its own. All contestants are checked to deliver every change, once and in order.

#include "mount/Measure.h"
#include "mount/RoundTrip.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <optional>

namespace Bench {
namespace {

struct Bar {
    double value;
    bool isLeast;  // else the most
};

struct Row {
    std::string contestant;
    std::vector<double> values;  // one a repetition
    std::optional<Bar> bar;

    double median() const {
        auto sorted = values;
        std::sort(sorted.begin(), sorted.end());
        return sorted[sorted.size() / 2];
    }
    double least() const { return *std::min_element(values.begin(), values.end()); }
    double most() const { return *std::max_element(values.begin(), values.end()); }
    bool isHeld() const { return bar->isLeast ? median() >= bar->value : median() <= bar->value; }
};

// One thing measured, of one or several contestants; the first is what the others are compared with.
struct Group {
    std::string what;
    std::string unit;
    std::vector<Row> rows;

    void add(std::string const& contestant, double value, std::optional<Bar> bar = {}) {
        for (Row& row : rows)
            if (row.contestant == contestant) return row.values.push_back(value);
        rows.push_back({contestant, {value}, bar});
    }
};

class Report {
public:
    explicit Report(bool json) : isJson_(json) {}

    void add(Group const& group) {
        if (group.rows.empty()) return;
        if (isJson_)
            addJson(group);
        else
            print(group);
    }
    // A measurement that went wrong.
    void fail(std::string const& what, std::string const& how) {
        hasFailed_ = true;
        std::fprintf(stderr, "%s: %s\n", what.c_str(), how.c_str());
        json_["failures"].push_back({{"what", what}, {"error", how}});
    }
    int end() {
        if (isJson_) std::printf("%s\n", json_.dump(2).c_str());
        if (hasFailed_) std::fprintf(stderr, "NOT all answers were right.\n");
        return hasFailed_ ? 1 : 0;
    }

private:
    static void print(Group const& group) {
        std::printf("\n%s, %s\n", group.what.c_str(), group.unit.c_str());
        double const base = group.rows.front().median();
        for (Row const& row : group.rows) {
            std::printf("    %-24s %10.4g", row.contestant.c_str(), row.median());
            if (row.values.size() > 1) {
                char range[64];
                std::snprintf(range, sizeof range, "%.4g to %.4g", row.least(), row.most());
                std::printf("  %-20s", range);
            }
            if (group.rows.size() > 1 && base != 0) std::printf("  x %6.2f", row.median() / base);
            if (row.bar)
                std::printf("  %s %g: bar %s", row.bar->isLeast ? "at least" : "at most", row.bar->value,
                    row.isHeld() ? "held" : "NOT held");
            std::printf("\n");
        }
        std::fflush(stdout);
    }
    void addJson(Group const& group) {
        for (Row const& row : group.rows) {
            nlohmann::json entry{{"what", group.what}, {"unit", group.unit}, {"contestant", row.contestant},
                {"median", row.median()}, {"least", row.least()}, {"most", row.most()}, {"runs", row.values.size()}};
            if (row.bar) {
                entry[row.bar->isLeast ? "atLeast" : "atMost"] = row.bar->value;
                entry["held"] = row.isHeld();
            }
            json_["results"].push_back(std::move(entry));
        }
    }

    bool isJson_;
    bool hasFailed_ = false;
    nlohmann::json json_{{"results", nlohmann::json::array()}, {"failures", nlohmann::json::array()}};
};

struct Settings {
    int repeat = 5;
    bool quick = false;
    bool json = false;
    std::vector<std::string> only;

    std::uint32_t size(std::uint32_t full, std::uint32_t brief) const { return quick ? brief : full; }
};

using Contestants = std::vector<std::unique_ptr<Contestant>>;
using WriteContestants = std::vector<std::unique_ptr<WriteContestant>>;

void leftOut(char const* who, char const* why) { std::fprintf(stderr, "%s is left out: %s.\n", who, why); }

// Those that are left out are told of as peers of mounts, but for gRPC.
WriteContestants writeContestants() {
    WriteContestants result;
    result.push_back(moxWriteContestant());
#ifdef MOX_BENCH_HIREDIS
    if (auto redis = redisWriteContestant()) result.push_back(std::move(redis));
#endif
#ifdef MOX_BENCH_GRPC
    result.push_back(grpcContestant());
#else
    leftOut("gRPC", "it was not there when this was built");
#endif
    return result;
}

Contestants contestants() {
    Contestants result;
    result.push_back(moxContestant());
    result.push_back(socketContestant());
#ifdef MOX_BENCH_HIREDIS
    if (auto redis = redisContestant())
        result.push_back(std::move(redis));
    else
        leftOut("Redis", "no redis-server is installed");
#else
    leftOut("Redis", "hiredis was not there when this was built");
#endif
#ifdef MOX_BENCH_ZEROMQ
    result.push_back(zeroMqContestant());
#else
    leftOut("ZeroMQ", "libzmq was not there when this was built");
#endif
    return result;
}

// Runs it for each contestant in turn, and so again and again. One that fails is not asked again.
template <class Contestant, class F>
void compare(std::vector<std::unique_ptr<Contestant>> const& all, int repeat, std::string const& what, Report& report,
    F measure) {
    std::vector<Contestant*> left;
    for (auto const& contestant : all) left.push_back(contestant.get());
    for (int i = 0; i < repeat; ++i)
        std::erase_if(left, [&](Contestant* contestant) {
            try {
                measure(*contestant);
                return false;
            } catch (std::exception const& e) {
                report.fail(what, e.what());
                return true;
            }
        });
}

bool isMox(Contestant const& contestant) { return contestant.name() == "Mox"; }
std::optional<Bar> barOf(Contestant const& contestant, Bar bar) {
    return isMox(contestant) ? std::optional(bar) : std::nullopt;
}

void measureSync(Settings const& settings, Report& report) {
    auto const measure = [&](std::uint32_t prefixes, int repeat, double bar) {
        std::string const what = "copy of a trie of " + std::to_string(prefixes) + " prefixes, from connect to synced";
        Group group{what, "s", {}};
        try {
            for (int i = 0; i < repeat; ++i) {
                SyncResult const result = sync(prefixes);
                group.add("first reader", result.first, Bar{bar, false});
                group.add("one more reader", result.further, Bar{bar, false});
            }
        } catch (std::exception const& e) {
            report.fail(what, e.what());
        }
        report.add(group);
    };
    measure(100'000, settings.repeat, 1);
    if (!settings.quick) measure(1'000'000, std::min(settings.repeat, 3), 10);
}

void measureUpdates(Settings const& settings, Contestants const& all, Report& report) {
    Group rate{"changes told, one source and one reader", "million/s", {}};
    Group source{"allocations of the source, for a change", "1", {}};
    Group reader{"allocations of the reader, for a change", "1", {}};
    std::uint32_t const most = settings.size(5'000'000, 200'000);
    compare(all, settings.repeat, rate.what, report, [&](Contestant& contestant) {
        Stream const what{1, isMox(contestant) ? most : most / 2};
        StreamResult const result = stream(contestant, what);
        if (result.leftOut != 0) throw Failure("changes were left out");
        rate.add(contestant.name(), what.changes / result.seconds / 1e6, barOf(contestant, {3, true}));
        if (result.sourceAllocations < 0) return;
        double const counted = what.changes * 0.5;
        source.add(contestant.name(), result.sourceAllocations / counted, barOf(contestant, {0, false}));
        reader.add(contestant.name(), result.readerAllocations / counted, barOf(contestant, {0, false}));
    });
    report.add(rate);
    report.add(source);
    report.add(reader);
}

double microseconds(Nanoseconds time) { return static_cast<double>(time) / 1e3; }

// Each repetition measures the time of one way, too, since the bar is a multiple of that.
void measureWrites(Settings const& settings, Contestants const& all, Report& report) {
    Group median{"time until a write is answered, median", "us", {}};
    Group late{"time until a write is answered, 99th percentile", "us", {}};
    Group ways{"a write's answer to two ways of a change, medians", "times", {}};
    Group many{"answered writes, 64 under way", "million/s", {}};
    auto const writers = writeContestants();
    std::uint32_t const changes = settings.size(22'224, 2'000);
    std::uint32_t const most = settings.size(1'000'000, 20'000);
    compare(writers, settings.repeat, median.what, report, [&](WriteContestant& contestant) {
        auto const times = roundTrips(contestant, changes, 200 * microsecond);
        Nanoseconds const middle = times[times.size() / 2];
        median.add(contestant.name(), microseconds(middle));
        late.add(contestant.name(), microseconds(times[times.size() * 99 / 100]));
        if (contestant.name() == "Mox") {
            auto const oneWay = latency(*all.front(), changes, 200 * microsecond).times;
            ways.add("Mox", microseconds(middle) / (2 * microseconds(oneWay[oneWay.size() / 2])), Bar{1.3, false});
        }
        std::uint32_t const writes = contestant.name() == "gRPC" ? most / 10 : most;
        many.add(contestant.name(), writes / writesInFlight(contestant, writes, 64) / 1e6);
    });
    report.add(median);
    report.add(late);
    report.add(ways);
    report.add(many);
}

void measureLatency(Settings const& settings, Contestants const& all, Report& report) {
    Group median{"time until a single change is told, median", "us", {}};
    Group late{"time until a single change is told, 99th percentile", "us", {}};
    Group source{"allocations of the source, for a single change", "1", {}};
    Group reader{"allocations of the reader, for a single change", "1", {}};
    std::uint32_t const changes = settings.size(22'224, 2'000);
    compare(all, settings.repeat, median.what, report, [&](Contestant& contestant) {
        LatencyResult const result = latency(contestant, changes, 200 * microsecond);
        auto const& times = result.times;
        median.add(
            contestant.name(), static_cast<double>(times[times.size() / 2]) / 1e3, barOf(contestant, {40, false}));
        late.add(contestant.name(), static_cast<double>(times[times.size() * 99 / 100]) / 1e3);
        if (result.sourceAllocations < 0) return;
        source.add(contestant.name(), result.sourceAllocations / changes, barOf(contestant, {0, false}));
        reader.add(contestant.name(), result.readerAllocations / changes, barOf(contestant, {0, false}));
    });
    report.add(median);
    report.add(late);
    report.add(source);
    report.add(reader);
}

// CPU time of the source, and of what stands between it and the readers, with 1 and with 16 of them.
void measureFanOut(Settings const& settings, Contestants const& all, Report& report) {
    auto const measure = [&](std::string const& how, std::uint32_t changes, Nanoseconds interval) {
        Group one{"CPU time for a change, 1 reader, " + how, "ns", {}};
        Group many{"CPU time for a change, 16 readers, " + how, "ns", {}};
        Group ratio{"16 readers to 1, CPU time, " + how, "times", {}};
        compare(all, settings.repeat, many.what, report, [&](Contestant& contestant) {
            auto const cost = [&](std::size_t readers) {
                Stream const what{readers, isMox(contestant) || interval ? changes : changes / 4, interval};
                StreamResult const result = stream(contestant, what);
                if (result.leftOut != 0) throw Failure("changes were left out");
                return (result.sourceCpu + result.brokerCpu) / what.changes * 1e9;
            };
            double const a = cost(1), b = cost(16);
            one.add(contestant.name(), a);
            many.add(contestant.name(), b);
            ratio.add(contestant.name(), b / a, barOf(contestant, {2, false}));
        });
        report.add(one);
        report.add(many);
        report.add(ratio);
    };
    measure("as fast as all take them", settings.size(2'000'000, 100'000), 0);
    measure("1000 every 5 ms", settings.size(500'000, 50'000), 5 * millisecond);
}

void measureStall(Settings const& settings, Report& report) {
    std::uint32_t const changes = settings.size(10'000'000, 500'000);
    std::string const what = "server with a reader that stands still, over " + std::to_string(changes) + " changes";
    Group group{what, "MiB", {}};
    try {
        StallResult const result = stall(changes, 1000);
        auto const resident = [&](std::size_t i) { return static_cast<double>(result.resident[i]) / (1 << 20); };
        double most = 0, later = 0;
        for (std::size_t i = 1; i < result.resident.size(); ++i) {
            most = std::max(most, resident(i) - resident(0));
            later = std::max(later, resident(i) - resident(1));
        }
        group.add("resident before", resident(0));
        group.add("most that it grew by", most);
        group.add("after the first tenth", later);
        report.add(group);
        Group counts{what, "changes", {}};
        counts.add("told to who follows", static_cast<double>(result.told));
        counts.add("told to who stood still", static_cast<double>(result.toldLate));
        counts.add("left out", static_cast<double>(result.leftOut));
        report.add(counts);
    } catch (std::exception const& e) {
        report.fail(what, e.what());
    }
}

int run(Settings const& settings) {
    Report report(settings.json);
    auto const all = contestants();
    auto const wants = [&](char const* part) {
        return settings.only.empty() ||
               std::find(settings.only.begin(), settings.only.end(), part) != settings.only.end();
    };
    if (wants("sync")) measureSync(settings, report);
    if (wants("updates")) measureUpdates(settings, all, report);
    if (wants("latency")) measureLatency(settings, all, report);
    if (wants("writes")) measureWrites(settings, all, report);
    if (wants("fanout")) measureFanOut(settings, all, report);
    if (wants("stall")) measureStall(settings, report);
    return report.end();
}

}  // namespace
}  // namespace Bench

int main(int argc, char** argv) {
    CLI::App app{"Measures mounts between processes, beside Redis, ZeroMQ, gRPC and a bare Unix socket.\n"
                 "Ends with 1 when an answer was wrong; a bar that is not held is only told of."};
    Bench::Settings settings;
    app.add_flag("--quick", settings.quick, "a small run, to see that all of it works");
    app.add_flag("--json", settings.json, "the results as JSON, and not as a table");
    auto* const repeat = app.add_option("--repeat", settings.repeat, "repetitions, of which the median counts")
                             ->check(CLI::Range(1, 100))
                             ->capture_default_str();
    app.add_option("--only", settings.only, "these parts: sync, updates, latency, writes, fanout, stall")
        ->check(CLI::IsMember({"sync", "updates", "latency", "writes", "fanout", "stall"}));
    CLI11_PARSE(app, argc, argv);
    if (settings.quick && repeat->empty()) settings.repeat = 1;
    return Bench::run(settings);
}
