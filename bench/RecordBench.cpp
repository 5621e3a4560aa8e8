// The text of a record: printing and parsing.

#include "Bench.h"
#include "ConditionOrCountStat.h"

#include <charconv>
#include <cstring>
#include <iterator>

#include <fmt/compile.h>
#include <fmt/format.h>

namespace {

using Bench::ConditionOrCountStat;
using Bench::ValueSet;

// --- printing ---

template <class To> To printWithFmt(To to, ConditionOrCountStat const& v) {
    // A bool as Python spells it, and {fmt}'s shortest decimal.
    return fmt::format_to(to,
        FMT_COMPILE("Value('Mox::ConditionOrCountStat', ** {{'current': {}, 'changes': {}, 'lastChange': {}}})"),
        v.current() ? "True" : "False", v.changes(), v.lastChange().value());
}

// What somebody writes by hand for just this record: into an array, and one std::string of it.
std::string printByHand(ConditionOrCountStat const& v) {
    char text[256];
    char* to = text;
    auto const put = [&to](std::string_view literal) { to += literal.copy(to, literal.size()); };
    auto const number = [&](auto value) { to = std::to_chars(to, text + sizeof text, value).ptr; };
    put("Value('Mox::ConditionOrCountStat', ** {'current': ");
    put(v.current() ? "True" : "False");
    put(", 'changes': ");
    number(v.changes());
    put(", 'lastChange': ");
    number(v.lastChange().value());
    put("})");
    return std::string(text, to);
}

void addPrinting(ValueSet const& set) {
    std::string const group = "print/" + set.name;
    auto const values = set.values;
    constexpr std::size_t mask = ValueSet::count - 1;

    Bench::add(group, "Vel::StrepOut, reused", [values](benchmark::State& state) {
        Vel::StrepOut out;
        std::size_t i = 0;
        for (auto _ : state) {
            out.clear();
            out << values[i++ & mask];
            benchmark::DoNotOptimize(out.view().data());
            benchmark::ClobberMemory();
        }
    });
    Bench::add(group, "Vel::String", [values](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) benchmark::DoNotOptimize(Vel::valueToStrep(values[i++ & mask]).charPtr());
    });
    Bench::add(group, "Vel::valueToChars", [values](benchmark::State& state) {
        char text[256];
        std::size_t i = 0;
        for (auto _ : state) {
            benchmark::DoNotOptimize(Vel::valueToChars(text, text + sizeof text, values[i++ & mask]).ptr);
            benchmark::ClobberMemory();
        }
    });
    Bench::add(group, "Vel::valueToStdString", [values](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) benchmark::DoNotOptimize(Vel::valueToStdString(values[i++ & mask]).data());
    });
    Bench::add(group, "by hand, std::to_chars, std::string", [values](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) benchmark::DoNotOptimize(printByHand(values[i++ & mask]).data());
    });
    Bench::add(group, "snprintf", [values](benchmark::State& state) {
        char text[256];
        std::size_t i = 0;
        for (auto _ : state) {
            benchmark::DoNotOptimize(Bench::printed(text, values[i++ & mask]));
            benchmark::ClobberMemory();
        }
    });
    Bench::add(group, "fmt::format_to, reused buffer", [values](benchmark::State& state) {
        fmt::memory_buffer out;
        std::size_t i = 0;
        for (auto _ : state) {
            out.clear();
            printWithFmt(std::back_inserter(out), values[i++ & mask]);
            benchmark::DoNotOptimize(out.data());
            benchmark::ClobberMemory();
        }
    });
    Bench::add(group, "fmt::format_to, char array", [values](benchmark::State& state) {
        char text[256];
        std::size_t i = 0;
        for (auto _ : state) {
            benchmark::DoNotOptimize(printWithFmt(text, values[i++ & mask]));
            benchmark::ClobberMemory();
        }
    });
    Bench::add(group, "fmt::format_to, std::string", [values](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) {
            fmt::memory_buffer out;
            printWithFmt(std::back_inserter(out), values[i++ & mask]);
            benchmark::DoNotOptimize(fmt::to_string(out).data());
        }
    });
}

// --- parsing ---

bool parseWithScanf(char const* text, ConditionOrCountStat& value) {
    char current[6];
    unsigned changes = 0;
    double lastChange = 0;
    int end = 0;
    int const fields = std::sscanf(text,
        "Value('Mox::ConditionOrCountStat', ** {'current': %5[TrueFals], 'changes': %u, 'lastChange': %lf})%n", current,
        &changes, &lastChange, &end);
    if (fields != 3 || text[end] != '\0') return false;
    value = {std::strcmp(current, "True") == 0, changes, lastChange};
    return true;
}

// What somebody writes by hand for just this record; it takes any number that std::from_chars takes.
bool parseByHand(std::string_view text, ConditionOrCountStat& value) {
    auto const skip = [&text](std::string_view literal) {
        if (!text.starts_with(literal)) return false;
        text.remove_prefix(literal.size());
        return true;
    };
    auto const number = [&text](auto& to) {
        auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), to);
        text.remove_prefix(static_cast<std::size_t>(end - text.data()));
        return error == std::errc();
    };
    if (!skip("Value('Mox::ConditionOrCountStat', ** {'current': ")) return false;
    bool const current = skip("True");
    if (!current && !skip("False")) return false;
    unsigned changes = 0;
    double lastChange = 0;
    if (!skip(", 'changes': ") || !number(changes)) return false;
    if (!skip(", 'lastChange': ") || !number(lastChange)) return false;
    if (!skip("})") || !text.empty()) return false;
    value = {current, changes, lastChange};
    return true;
}

void addParsing(ValueSet const& set) {
    std::string const group = "parse/" + set.name;
    std::vector<Vel::String> texts;
    for (auto const& value : set.values) texts.push_back(Vel::valueToStrep(value));
    std::size_t const mask = texts.size() - 1;  // the number is a power of two

    Bench::add(group, "Vel::strepToValue", [texts, mask](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) {
            auto const value = Vel::strepToValue<ConditionOrCountStat>(texts[i++ & mask]);
            Bench::keep(value);
        }
    });
    Bench::add(group, "the same from a std::string_view", [texts, mask](benchmark::State& state) {
        std::vector<std::string_view> const views(texts.begin(), texts.end());
        std::size_t i = 0;
        for (auto _ : state) {
            auto const value = Vel::strepToValue<ConditionOrCountStat>(views[i++ & mask]);
            Bench::keep(value);
        }
    });
    Bench::add(group, "the same, assigned", [texts, mask](benchmark::State& state) {
        ConditionOrCountStat value;
        std::size_t i = 0;
        for (auto _ : state) {
            value = Vel::strepToValue<ConditionOrCountStat>(texts[i++ & mask]);
            Bench::keep(value);
        }
    });
    Bench::add(group, "sscanf", [texts, mask](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) {
            ConditionOrCountStat value;
            benchmark::DoNotOptimize(parseWithScanf(texts[i++ & mask].charPtr(), value));
            Bench::keep(value);
        }
    });
    Bench::add(group, "by hand, std::from_chars", [texts, mask](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) {
            ConditionOrCountStat value;
            benchmark::DoNotOptimize(parseByHand(texts[i++ & mask].view(), value));
            Bench::keep(value);
        }
    });
}

void checkAgreement(ValueSet const& set) {
    for (auto const& value : set.values) {
        char text[256];
        std::string_view const wanted(text, static_cast<std::size_t>(Bench::printed(text, value)));
        Vel::StrepOut out;
        out << value;
        Bench::requireSame(out.view(), wanted, "Vel::StrepOut");
        Bench::requireSame(Vel::valueToStrep(value).view(), wanted, "Vel::valueToStrep");
        char chars[256];
        auto const end = Vel::valueToChars(chars, chars + sizeof chars, value).ptr;
        Bench::requireSame({chars, static_cast<std::size_t>(end - chars)}, wanted, "Vel::valueToChars");
        Bench::requireSame(Vel::valueToStdString(value), wanted, "Vel::valueToStdString");
        Bench::requireSame(printByHand(value), wanted, "std::to_chars");
        fmt::memory_buffer buffer;
        printWithFmt(std::back_inserter(buffer), value);
        Bench::requireSame({buffer.data(), buffer.size()}, wanted, "fmt::format_to");
        char array[256];
        Bench::requireSame({array, static_cast<std::size_t>(printWithFmt(array, value) - array)}, wanted, "fmt, array");
        ConditionOrCountStat byScanf;
        ConditionOrCountStat byHand;
        Bench::require(parseWithScanf(text, byScanf) && byScanf == value, "sscanf");
        Bench::require(parseByHand(wanted, byHand) && byHand == value, "by hand");
        Bench::require(Vel::strepToValue<ConditionOrCountStat>(wanted) == value, "Vel::strepToValue");
    }
}

}  // namespace

int main(int argc, char** argv) {
    for (ValueSet const& set : Bench::valueSets()) {
        checkAgreement(set);
        addPrinting(set);
        addParsing(set);
    }
    // So many that no branch predictor learns them: what branches on each digit gains much by that.
    for (ValueSet& set : Bench::valueSets(8 * ValueSet::count)) {
        set.name += ", 8192 values";
        addParsing(set);
    }
    return Bench::run(argc, argv);
}
