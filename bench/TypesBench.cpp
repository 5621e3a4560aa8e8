// Text and bytes of every value type, against printf and scanf where those can say the same.

#include "Bench.h"

#include "Mox/Mox.h"

#include <array>
#include <memory>
#include <random>
#include <tuple>

namespace {

using Vel::String;
using Vel::U64;

constexpr std::size_t count = 1024;
constexpr std::size_t mask = count - 1;

// --- values ---

template <class F> void makeRandom(F& field, std::mt19937_64& random) {
    if constexpr (std::is_same_v<F, String>) {
        std::string text(random() % 17, ' ');
        for (char& c : text) c = static_cast<char>('a' + random() % 26);
        field = String(text);
    } else if constexpr (std::is_same_v<F, Vel::F64> || std::is_same_v<F, Vel::Seconds>) {
        field = (1.7e15 + static_cast<double>(random() % 100000000000000)) / 1e6;
    } else if constexpr (std::is_same_v<F, bool> || std::is_same_v<F, Vel::U1>) {
        field = random() % 2 != 0;
    } else {  // as many small ones as large ones
        field = static_cast<F>(random() >> (64 - 8 * sizeof(F)) >> random() % (8 * sizeof(F)));
    }
}

// References to the fields of a value, in a tuple.
template <class T> auto fieldsOf(T& value) {
    using Type = std::remove_const_t<T>;
    return [&]<std::size_t... I>(std::index_sequence<I...>) {
        return std::tuple_cat([&] {
            if constexpr (Vel::isField<Type, I>)
                return std::tie(value.*Vel::AttributeAt<Type, I>::member);
            else
                return std::tuple<>();
        }()...);
    }
    (std::make_index_sequence<Vel::attributeCount<Type>>());
}

template <class T> T randomValue(std::mt19937_64& random) {
    T value{};
    if constexpr (std::is_same_v<T, Mox::ChipSet>) {
        for (unsigned i = 0; i < 8; ++i)
            value.chipIdIs(Mox::ChipId(static_cast<Mox::U8>(random() % Mox::ChipId::max())), true);
    } else if constexpr (std::is_same_v<T, Mox::ChipId>) {
        value = T(static_cast<Mox::U8>(random() % Mox::ChipId::max()));
    } else {
        std::apply([&](auto&... fields) { (makeRandom(fields, random), ...); }, fieldsOf(value));
    }
    return value;
}

// --- the same text by printf and scanf: of numbers, and of records of numbers ---

template <class T> constexpr bool printfCan() {
    if constexpr (Vel::hasOption<T, Vel::OptionId::text>) return false;
    bool can = true;
    Vel::forEachField<T>(
        [&](auto index) { can = can && !std::is_same_v<Vel::FieldType<T, decltype(index)::value>, String>; });
    return can;
}

template <class T> std::string formatOf(bool scan) {
    std::string const text(Vel::typeOf<T>().strepTemplate().view());
    std::string result;
    std::size_t at = 0;
    Vel::forEachField<T>([&](auto index) {
        using F = Vel::FieldType<T, decltype(index)::value>;
        std::size_t const place = text.find('%', at);
        result += text.substr(at, place - at);
        at = place + (text[place + 1] == 'l' ? 3 : 2);
        if constexpr (std::is_same_v<F, bool> || std::is_same_v<F, Vel::U1>)
            result += scan ? "%5[TrueFals]" : "%s";
        else if constexpr (std::is_same_v<F, Vel::F64> || std::is_same_v<F, Vel::Seconds>)
            result += scan ? "%lf" : "%.17g";
        else if constexpr (sizeof(F) == 8)
            result += "%lu";
        else
            result += "%u";
    });
    return result + text.substr(at);
}

template <class F> auto printfArgument(F const& field) {
    if constexpr (std::is_same_v<F, bool> || std::is_same_v<F, Vel::U1>)
        return field ? "True" : "False";
    else if constexpr (std::is_same_v<F, Vel::Seconds>)
        return field.value();
    else if constexpr (std::is_same_v<F, Vel::F64> || sizeof(F) == 8)
        return field;
    else
        return unsigned(field);
}

template <class F> auto scanfStorage() {
    if constexpr (std::is_same_v<F, bool> || std::is_same_v<F, Vel::U1>)
        return std::array<char, 6>();
    else if constexpr (std::is_same_v<F, Vel::F64> || std::is_same_v<F, Vel::Seconds>)
        return double();
    else if constexpr (sizeof(F) == 8)
        return U64();
    else
        return unsigned();
}

template <class F, class S> void assign(F& field, S const& stored) {
    if constexpr (requires { stored.data(); })
        field = stored[0] == 'T';
    else
        field = static_cast<F>(stored);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
template <class T> int printWithPrintf(char* to, char const* format, T const& value) {
    auto const print = [&](auto const&... fields) { return std::snprintf(to, 256, format, printfArgument(fields)...); };
    return std::apply(print, fieldsOf(value));
}

template <class T> bool parseWithScanf(char const* text, char const* format, T& value) {
    auto fields = fieldsOf(value);
    auto storage = std::apply(
        [](auto&... field) { return std::make_tuple(scanfStorage<std::remove_reference_t<decltype(field)>>()...); },
        fields);
    auto const scan = [&](auto&... field) { return std::sscanf(text, format, static_cast<void*>(&field)...); };
    if (std::apply(scan, storage) != static_cast<int>(std::tuple_size_v<decltype(storage)>)) return false;
    [&]<std::size_t... I>(std::index_sequence<I...>) { (assign(std::get<I>(fields), std::get<I>(storage)), ...); }
    (std::make_index_sequence<std::tuple_size_v<decltype(storage)>>());
    return true;
}
#pragma GCC diagnostic pop

// --- measurements ---

template <class T> struct Sets {
    std::vector<T> values;
    std::vector<String> texts;
    std::vector<std::vector<Vel::U8>> bytes;
    std::string printFormat;
    std::string scanFormat;
};

template <class T> std::string_view textOf(Vel::StrepOut& out, T const& value) {
    out.clear();
    out << value;
    return out.view();
}

// Values of one type whose text printf can also write, with all forms checked.
template <class T> Sets<T> setsOf() {
    Sets<T> sets;
    if constexpr (printfCan<T>()) {
        sets.printFormat = formatOf<T>(false);
        sets.scanFormat = formatOf<T>(true);
    }
    std::mt19937_64 random(42);
    while (sets.values.size() < count) {
        T const value = randomValue<T>(random);
        String const text = Vel::valueToStrep(value);
        if constexpr (printfCan<T>()) {
            char printed[256];
            auto const length = static_cast<std::size_t>(printWithPrintf(printed, sets.printFormat.c_str(), value));
            if (text != std::string_view(printed, length)) continue;  // 17 digits are not the shortest
            T parsed{};
            Bench::require(parseWithScanf(printed, sets.scanFormat.c_str(), parsed), text.view());
            Bench::requireSame(Vel::valueToStrep(parsed).view(), text.view(), "sscanf");
        }
        Bench::requireSame(Vel::valueToStrep(Vel::strepToValue<T>(text)).view(), text.view(), "parsed and printed");
        Vel::NboAttrLog::Out out;
        out << value;
        Vel::NboAttrLog::In in(out.bytes());
        Bench::requireSame(
            Vel::valueToStrep(T(&in, Vel::StreamBogon())).view(), text.view(), "written, read and printed");
        Bench::require(out.size() == Vel::attrLogSize(&value), "the encoded size");
        sets.values.push_back(value);
        sets.texts.push_back(text);
        sets.bytes.emplace_back(out.bytes().begin(), out.bytes().end());
    }
    return sets;
}

template <class T> void addType() {
    auto const sets = std::make_shared<Sets<T> const>(setsOf<T>());
    std::string const name = Vel::typeOf<T>().name();
    Bench::add("print", name, [sets](benchmark::State& state) {
        Vel::StrepOut out;
        std::size_t i = 0;
        for (auto _ : state) {
            benchmark::DoNotOptimize(textOf(out, sets->values[i++ & mask]).data());
            benchmark::ClobberMemory();
        }
    });
    Bench::add("parse", name, [sets](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) {
            T const value = Vel::strepToValue<T>(sets->texts[i++ & mask]);
            Bench::keep(value);
        }
    });
    Bench::add("write", name, [sets](benchmark::State& state) {
        Vel::NboAttrLog::Out out;
        std::size_t i = 0;
        for (auto _ : state) {
            out.clear();
            out << sets->values[i++ & mask];
            benchmark::DoNotOptimize(out.data());
            benchmark::ClobberMemory();
        }
    });
    Bench::add("read", name, [sets](benchmark::State& state) {
        std::size_t i = 0;
        for (auto _ : state) {
            Vel::NboAttrLog::In in(sets->bytes[i++ & mask]);
            T const value(&in, Vel::StreamBogon());
            Bench::keep(value);
        }
    });
    if constexpr (printfCan<T>()) {
        Bench::add("snprintf", name, [sets](benchmark::State& state) {
            char text[256];
            std::size_t i = 0;
            for (auto _ : state) {
                benchmark::DoNotOptimize(printWithPrintf(text, sets->printFormat.c_str(), sets->values[i++ & mask]));
                benchmark::ClobberMemory();
            }
        });
        Bench::add("sscanf", name, [sets](benchmark::State& state) {
            std::size_t i = 0;
            for (auto _ : state) {
                T value{};
                benchmark::DoNotOptimize(
                    parseWithScanf(sets->texts[i++ & mask].charPtr(), sets->scanFormat.c_str(), value));
                Bench::keep(value);
            }
        });
    }
}

template <class... T> void addTypes() { (addType<T>(), ...); }

}  // namespace

int main(int argc, char** argv) {
    addTypes<Mox::ConditionOrCountStat, Mox::Event, Mox::Count, Mox::EventOrCount, Mox::ConditionOrChanged,
        Mox::ConditionStat, Mox::EventStat, Mox::CountStat, Mox::EventOrCountStat, Mox::ConditionOrChangedStat,
        Mox::CountOrChangedStat, Mox::GenTime, Mox::Generation, Mox::UniqueId, Mox::MaybeU63, Mox::Seqno16,
        Mox::Seqno32, Cell::CellId, Mox::ChipId, Mox::ChipSet, Mox::Id, Mox::BucketId, Mox::TristateBoolean,
        Mox::TristateU8, Mox::TristateU16, Mox::TristateU32, Mox::TristateU64, Mox::TristateF64, Mox::TristateString>();
    return Bench::run(argc, argv);
}
