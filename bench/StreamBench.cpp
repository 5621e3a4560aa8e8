// The attribute log's form of a record of 13 bytes: writing it and reading it back.

#include "Bench.h"
#include "ConditionOrCountStat.h"
#include "ConditionOrCountStat.pb.h"

#include <array>
#include <bit>
#include <cstring>
#include <tuple>

namespace {

using Bench::ConditionOrCountStat;
using Vel::U32;
using Vel::U64;
using Vel::U8;
using Bytes = std::array<U8, 13>;

// --- a serializer as one writes it with templates for structs of numbers: network byte order, bounds checked ---

struct Plain {
    bool current;
    U32 changes;
    double lastChange;
    auto members() { return std::tie(current, changes, lastChange); }
};

template <class Byte> class Archive {  // Byte: U8 to write, U8 const to read
public:
    explicit Archive(std::span<Byte> bytes) : bytes_(bytes) {}

    template <class T> bool write(T& value) {
        return std::apply([this](auto&... member) { return (writeOne(member) && ...); }, value.members());
    }
    template <class T> bool read(T& value) {
        return std::apply([this](auto&... member) { return (readOne(member) && ...); }, value.members());
    }

private:
    template <std::size_t Size> using Bits = std::conditional_t<Size == 1, U8, std::conditional_t<Size == 4, U32, U64>>;
    template <class B> static B swapped(B bits) {
        if constexpr (sizeof bits == 8) return __builtin_bswap64(bits);
        if constexpr (sizeof bits == 4) return __builtin_bswap32(bits);
        return bits;
    }
    template <class T> bool writeOne(T const& value) {
        if (bytes_.size() - at_ < sizeof value) return false;
        auto const bits = swapped(std::bit_cast<Bits<sizeof value>>(value));
        std::memcpy(bytes_.data() + at_, &bits, sizeof bits);
        at_ += sizeof bits;
        return true;
    }
    template <class T> bool readOne(T& value) {
        if (bytes_.size() - at_ < sizeof value) return false;
        Bits<sizeof value> bits;
        std::memcpy(&bits, bytes_.data() + at_, sizeof bits);
        at_ += sizeof bits;
        if constexpr (std::is_same_v<T, bool>)
            value = bits != 0;
        else
            value = std::bit_cast<T>(swapped(bits));
        return true;
    }

    std::span<Byte> bytes_;
    std::size_t at_ = 0;
};

bench_proto::ConditionOrCountStat message(ConditionOrCountStat const& v) {
    bench_proto::ConditionOrCountStat result;
    result.set_current(v.current());
    result.set_changes(v.changes());
    result.set_last_change(v.lastChange().value());
    return result;
}

struct Sets {
    std::vector<ConditionOrCountStat> values;
    std::vector<Plain> plain;
    std::vector<Bytes> bytes;
    std::vector<bench_proto::ConditionOrCountStat> messages;
    std::vector<std::string> encodedMessages;
};

constexpr std::size_t count = Bench::ValueSet::count;
constexpr std::size_t mask = count - 1;

// --- the least that can be done: three stores and loads with their bytes swapped, nothing checked ---

void storeSwapped(U8* to, Plain const& v) {
    to[0] = v.current;
    U32 const changes = __builtin_bswap32(v.changes);
    U64 const lastChange = __builtin_bswap64(std::bit_cast<U64>(v.lastChange));
    std::memcpy(to + 1, &changes, 4);
    std::memcpy(to + 5, &lastChange, 8);
}

Plain loadSwapped(U8 const* from) {
    U32 changes;
    U64 lastChange;
    std::memcpy(&changes, from + 1, 4);
    std::memcpy(&lastChange, from + 5, 8);
    return {from[0] != 0, __builtin_bswap32(changes), std::bit_cast<double>(__builtin_bswap64(lastChange))};
}

Sets sets() {
    Sets result;
    result.values = Bench::valueSets()[1].values;
    for (auto const& v : result.values) {
        result.plain.push_back({v.current(), v.changes(), v.lastChange().value()});
        Vel::NboAttrLog::Out out;
        out << v;
        Bench::require(out.size() == 13 && Vel::attrLogSize(&v) == 13, "13 bytes");
        std::memcpy(result.bytes.emplace_back().data(), out.data(), 13);
        result.messages.push_back(message(v));
        result.encodedMessages.push_back(result.messages.back().SerializeAsString());
    }
    return result;
}

void checkAgreement(Sets& s) {
    for (std::size_t i = 0; i < count; ++i) {
        Vel::NboAttrLog::Out items;
        items << s.values[i].current() << s.values[i].changes() << s.values[i].lastChange();
        Bench::require(std::memcmp(items.data(), s.bytes[i].data(), 13) == 0, "Out, item by item");
        Bytes swapped;
        storeSwapped(swapped.data(), s.plain[i]);
        Plain const loaded = loadSwapped(swapped.data());
        Bench::require(swapped == s.bytes[i] && loaded.current == s.plain[i].current &&
                           loaded.changes == s.plain[i].changes && loaded.lastChange == s.plain[i].lastChange,
            "swapped by hand");
        Bytes archived;
        Bench::require(Archive<U8>(archived).write(s.plain[i]) && archived == s.bytes[i], "the template serializer");
        Plain plain{};
        Bench::require(Archive<U8 const>(s.bytes[i]).read(plain), "the template serializer reads");
        Bench::require(
            ConditionOrCountStat(plain.current, plain.changes, plain.lastChange) == s.values[i], "its value");
        Vel::NboAttrLog::In in(s.bytes[i]);
        Bench::require(ConditionOrCountStat(&in, {}) == s.values[i] && in.left() == 0, "In");
        bench_proto::ConditionOrCountStat parsed;
        Bench::require(parsed.ParseFromString(s.encodedMessages[i]) && parsed.last_change() == plain.lastChange &&
                           parsed.changes() == plain.changes && parsed.current() == plain.current,
            "protobuf");
    }
}

// Records are appended to a log of 64, which is then begun anew, and read from such logs.
constexpr std::size_t logRecords = 64;
constexpr bool isFirst(std::size_t i) { return i % logRecords == 0; }
constexpr std::size_t place(std::size_t i) { return 13 * (i % logRecords); }

template <class F> void addWriter(char const* name, F one) {
    Bench::add("write", name, [one](benchmark::State& state) {
        U8 to[16 * logRecords];
        std::size_t i = 0;
        auto write = one;
        for (auto _ : state) {
            write(i, to);
            ++i;
            Bench::keep(to);
        }
    });
}

void addWriting(Sets const& s) {
    addWriter("3 swapped stores, unchecked",
        [from = s.plain.data()](std::size_t i, U8* to) { storeSwapped(to + place(i), from[i & mask]); });
    addWriter("memcpy of 13 bytes",
        [from = s.bytes.data()](std::size_t i, U8* to) { std::memcpy(to + place(i), from[i & mask].data(), 13); });
    auto const addOut = [](char const* name, auto write) {
        Bench::add("write", name, [write](benchmark::State& state) {
            Vel::NboAttrLog::Out out;
            std::size_t i = 0;
            for (auto _ : state) {
                if (isFirst(i)) out.clear();
                write(out, i);
                ++i;
                Bench::keep(out);
            }
        });
    };
    addOut("Vel::NboAttrLog::Out", [from = s.values.data()](auto& out, std::size_t i) { out << from[i & mask]; });
    addOut("the same, item by item", [from = s.values.data()](auto& out, std::size_t i) {
        auto const& v = from[i & mask];
        out << v.current() << v.changes() << v.lastChange();
    });
    addWriter("template serializer", [from = s.plain.data(), archive = Archive<U8>({})](std::size_t i, U8* to) mutable {
        if (isFirst(i)) archive = Archive<U8>({to, 16 * logRecords});
        Plain plain = from[i & mask];
        benchmark::DoNotOptimize(archive.write(plain));
    });
    addWriter("protobuf SerializeToArray", [from = s.messages.data()](std::size_t i, U8* to) {
        benchmark::DoNotOptimize(from[i & mask].SerializeToArray(to + place(i), 16));
    });
}

template <class F> void addReader(char const* name, F one) {
    Bench::add("read", name, [one](benchmark::State& state) {
        std::size_t i = 0;
        auto read = one;
        for (auto _ : state) {
            auto const value = read(i);
            ++i;
            Bench::keep(value);
        }
    });
}

void addReading(Sets const& s) {
    U8 const* const log = s.bytes.data()->data();  // arrays of 13 bytes, one behind the other
    static_assert(sizeof(Bytes) == 13);
    auto const logOf = [log](std::size_t i) { return std::span(log + 13 * (i & mask), 13 * logRecords); };
    addReader("3 swapped loads, unchecked", [log](std::size_t i) { return loadSwapped(log + 13 * (i & mask)); });
    Bench::add("read", "memcpy of 13 bytes", [log](benchmark::State& state) {
        U8 to[16];
        std::size_t i = 0;
        for (auto _ : state) {
            std::memcpy(to, log + 13 * (i++ & mask), 13);
            Bench::keep(to);
        }
    });
    addReader("Vel::NboAttrLog::In", [logOf, in = Vel::NboAttrLog::In({})](std::size_t i) mutable {
        if (isFirst(i)) in = Vel::NboAttrLog::In(logOf(i));
        return ConditionOrCountStat(&in, {});
    });
    // The value is one that is there already.
    auto const addInto = [logOf](char const* name, auto read) {
        Bench::add("read", name, [logOf, read](benchmark::State& state) {
            Vel::NboAttrLog::In in({});
            ConditionOrCountStat value;
            std::size_t i = 0;
            for (auto _ : state) {
                if (isFirst(i)) in = Vel::NboAttrLog::In(logOf(i));
                read(value, in);
                ++i;
                Bench::keep(value);
            }
        });
    };
    addInto("the same, read in place", [](auto& value, auto& in) { Vel::read(value, in); });
    addInto("the same, constructed and assigned",
        [](auto& value, auto& in) { value = ConditionOrCountStat(&in, Vel::StreamBogon()); });
    addReader("the same, item by item", [logOf, in = Vel::NboAttrLog::In({})](std::size_t i) mutable {
        if (isFirst(i)) in = Vel::NboAttrLog::In(logOf(i));
        bool const current = in.nextbool();
        U32 const changes = in.nextU32();
        return ConditionOrCountStat(current, changes, in.nextSeconds());
    });
    addReader("template serializer", [logOf, archive = Archive<U8 const>({})](std::size_t i) mutable {
        if (isFirst(i)) archive = Archive<U8 const>(logOf(i));
        Plain plain{};
        benchmark::DoNotOptimize(archive.read(plain));
        return plain;
    });
    Bench::add("read", "protobuf ParseFromArray", [from = s.encodedMessages.data()](benchmark::State& state) {
        bench_proto::ConditionOrCountStat to;
        std::size_t i = 0;
        for (auto _ : state) {
            std::string const& text = from[i++ & mask];
            benchmark::DoNotOptimize(to.ParseFromArray(text.data(), static_cast<int>(text.size())));
            benchmark::ClobberMemory();
        }
    });
}

}  // namespace

// For the disassembler: what the compiler makes of one write.
void writeRecord(Vel::NboAttrLog::Out& out, ConditionOrCountStat const& value) { out << value; }

int main(int argc, char** argv) {
    Sets s = sets();
    checkAgreement(s);
    addWriting(s);
    addReading(s);
    return Bench::run(argc, argv);
}
