#pragma once

#include "Mox/IdSet.h"

#include "Vel/base/Exception.h"
#include "Vel/base/Hash.h"

#include <algorithm>
#include <bit>
#include <bitset>
#include <cstdint>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// What an id set is to do, written out plainly over a standard map, and steps that take both through the same
// operations. For tests and for fuzzing: whatever differs is told as a text.

struct IdSetModel {
    using Key = std::uint8_t;
    static constexpr std::uint64_t ones = ~std::uint64_t(0);
    static constexpr unsigned null = 65535;

    std::uint16_t size = 0;
    std::map<Key, std::uint64_t> buckets = {};

    friend bool operator==(IdSetModel const&, IdSetModel const&) = default;
    friend bool operator<(IdSetModel const& a, IdSetModel const& b) {
        if (a.size != b.size) return a.size < b.size;
        if (a.buckets.size() != b.buckets.size()) return a.buckets.size() < b.buckets.size();
        return a.buckets < b.buckets;
    }

    unsigned maxBuckets() const { return (size + 63u) / 64; }
    Key loopBuckets() const { return static_cast<Key>(maxBuckets()); }
    static Key bucketOf(unsigned id) { return static_cast<Key>(id / 64); }
    std::bitset<256> keys() const {
        std::bitset<256> keys;
        for (auto const& [b, word] : buckets) keys.set(b);
        return keys;
    }
    std::uint64_t word(Key b) const { return buckets.contains(b) ? buckets.at(b) : 0; }
    void update(Key b, std::uint64_t word) {
        if (word == 0)
            buckets.erase(b);
        else
            buckets[b] = word;
    }

    bool id(unsigned i) const { return (word(bucketOf(i)) >> (i % 64)) % 2 == 1; }
    bool updateId(unsigned i, bool on) {
        bool const was = id(i);
        std::uint64_t const bit = std::uint64_t(1) << (i % 64);
        update(bucketOf(i), on ? word(bucketOf(i)) | bit : word(bucketOf(i)) & ~bit);
        return was;
    }
    std::uint16_t ids() const {
        unsigned sum = 0;
        for (auto const& [b, word] : buckets) sum += static_cast<unsigned>(std::popcount(word));
        return static_cast<std::uint16_t>(sum);
    }
    void setAll() {
        for (int b = 0; b < loopBuckets() - 1; ++b) buckets[static_cast<Key>(b)] = ones;
        int const r = (size - 1) % 64;
        buckets[static_cast<Key>(maxBuckets() - 1)] = ones >> ((63 - r) % 64);
    }
    // Adds the ids of [begin, end): in the first id's word those from begin on, in the last id's word those up to the
    // last, and the whole words between. Numbers of buckets are counted modulo 256. So the words between are those
    // whose number is at least that behind the first and below the last: none where counting up meets 255 on the way.
    void setRange(unsigned begin, unsigned end) {
        unsigned const stop = end - 1;
        unsigned const first = begin / 64 % 256;
        unsigned const last = stop / 64 % 256;
        for (unsigned b = 0; b < 256; ++b) {
            bool const between = first != last && (first + 1) % 256 <= b && b < last;
            if (b != first && b != last && !between) continue;
            std::uint64_t added = 0;
            for (unsigned bit = 0; bit < 64; ++bit) {
                bool const cutBelow = b == first && bit < begin % 64;
                bool const cutAbove = b == last && bit > stop % 64;
                if (!cutBelow && !cutAbove) added |= std::uint64_t(1) << bit;
            }
            update(static_cast<Key>(b), word(static_cast<Key>(b)) | added);
        }
    }
    unsigned nextId(unsigned bitPos) const {
        auto const belowSize = [this](unsigned id) { return id < size ? id : null; };
        Key from = 0;
        if (bitPos != null) {
            unsigned const bit = bitPos % 64;
            if (bit < 63 && word(bucketOf(bitPos)) >> (bit + 1) != 0)
                return belowSize(
                    bitPos + 1 + static_cast<unsigned>(std::countr_zero(word(bucketOf(bitPos)) >> (bit + 1))));
            from = static_cast<Key>(bucketOf(bitPos) + 1);
        }
        for (auto at = buckets.lower_bound(from); at != buckets.end(); ++at)
            if (at->second != 0)
                return belowSize(at->first * 64u + static_cast<unsigned>(std::countr_zero(at->second)));
        return null;
    }
    // What a strict range list names: "(1-3,5)".
    static IdSetModel named(std::uint16_t size, std::string_view text) {
        IdSetModel model{size};
        std::istringstream items{std::string(text.substr(1, text.size() - 2))};
        for (std::string item; std::getline(items, item, ',');) {
            auto const dash = item.find('-');
            auto const first = static_cast<unsigned>(std::stoul(item));
            if (dash == std::string::npos)
                model.updateId(first, true);
            else
                model.setRange(first, static_cast<unsigned>(std::stoul(item.substr(dash + 1))) + 1);
        }
        return model;
    }
    template <class F> void combine(IdSetModel const& other, F f) {
        for (unsigned b = 0; b < loopBuckets(); ++b) {
            auto const key = static_cast<Key>(b);
            update(key, f(word(key), other.word(key)));
        }
    }
    void complement() {
        combine(*this, [](auto a, auto) { return ~a; });
    }

    // Every id that has a bit, ascending, up to the first at or above the size.
    std::vector<unsigned> members() const {
        std::vector<unsigned> result;
        for (auto const& [b, word] : buckets)
            for (unsigned bit = 0; bit < 64; ++bit)
                if ((word >> bit) % 2 == 1) {
                    if (b * 64u + bit >= size) return result;
                    result.push_back(b * 64u + bit);
                }
        return result;
    }
    std::string text() const {
        auto const ids = members();
        std::string text = "(";
        for (std::size_t i = 0; i < ids.size();) {
            std::size_t last = i;
            while (last + 1 < ids.size() && ids[last + 1] == ids[last] + 1) ++last;
            if (i != 0) text += ",";
            text += std::to_string(ids[i]);
            if (last != i) text += "-" + std::to_string(ids[last]);
            i = last + 1;
        }
        return text + ")";
    }
    // Nothing when it cannot be written.
    std::optional<std::vector<std::uint8_t>> bytes() const {
        std::vector<std::uint8_t> bytes{static_cast<std::uint8_t>(size >> 8), static_cast<std::uint8_t>(size)};
        for (auto const& [b, word] : buckets) {
            if (b == 255) return std::nullopt;
            bytes.push_back(b);
            for (int shift = 56; shift >= 0; shift -= 8) bytes.push_back(static_cast<std::uint8_t>(word >> shift));
        }
        bytes.push_back(255);
        return bytes;
    }
    std::uint32_t hash(std::uint32_t seed) const {
        Vel::Hash hash(seed);
        hash.hashMix<2>(size);
        for (auto const& [b, word] : buckets) {
            hash.hashMix<4>(Vel::Hash(0).hashMix<1>(b).result());
            hash.hashMix<8>(word);
        }
        return hash.result();
    }
};

// What the buckets differ in, which are all that a set is; empty: in nothing.
inline std::string differentBuckets(Mox::IdSet const& set, IdSetModel const& model) {
    auto bucket = set.bucketIterator();
    for (auto const& [b, word] : model.buckets) {
        if (!bucket || bucket.key() != Mox::BucketId(b) || bucket.word() != word) return "walk over the buckets";
        ++bucket;
    }
    return bucket ? "end of the walk over the buckets" : "";
}

// The first thing in which the set differs from the model; empty when nothing does. All that can be asked of a set.
inline std::string difference(Mox::IdSet const& set, IdSetModel const& model) {
    using Mox::BucketId;
    using Mox::Id;
    if (set.size() != model.size) return "size";
    if (set.maxBuckets() != model.maxBuckets()) return "maxBuckets";
    if (set.buckets() != model.buckets.size()) return "number of buckets";
    for (unsigned b = 0; b < 256; ++b) {
        BucketId const key(static_cast<Mox::U8>(b));
        if (set.bucket(key) != model.word(key.value())) return "word of bucket " + std::to_string(b);
        if (set.bucketExists(key) != model.buckets.contains(key.value())) return "bucket " + std::to_string(b);
    }
    if (auto const what = differentBuckets(set, model); !what.empty()) return what;
    if (set.ids() != model.ids()) return "ids";
    if (bool(set) != (model.size != 0 || !model.buckets.empty())) return "truth";

    auto const members = model.members();
    std::vector<unsigned> walked;
    for (Id const id : set) walked.push_back(id.value());
    if (walked != members) return "range";
    walked.clear();
    set.forEachId([&](Id id) { walked.push_back(id.value()); });
    if (walked != members) return "forEachId";
    if (set.firstId().value() != model.nextId(IdSetModel::null)) return "firstId";
    unsigned expected = IdSetModel::null;
    for (unsigned i = 0; i < 200; ++i) {
        unsigned const next = model.nextId(expected);
        if (set.nextId(static_cast<Mox::U16>(expected)).value() != next) return "id behind " + std::to_string(expected);
        if (next == IdSetModel::null) break;
        expected = next;
    }

    if (set.stringValue() != model.text()) return "text";
    if (set.hash(0) != model.hash(0) || set.hash(123) != model.hash(123)) return "hash";
    if (set.attrLogSize() != 3 + 9 * model.buckets.size()) return "attrLogSize";
    auto const bytes = model.bytes();
    Vel::NboAttrLog::Out out;
    try {
        out << set;
        if (!bytes || !std::equal(out.bytes().begin(), out.bytes().end(), bytes->begin(), bytes->end())) return "bytes";
    } catch (Vel::StreamException const&) {
        if (bytes) return "refused to be written";
    }
    return {};
}

// One step; what of it applies depends on the size.
struct IdSetStep {
    unsigned operation = 0;  // any number
    unsigned a = 0, b = 0;   // ids or buckets
    std::uint64_t word = 0;
    static constexpr unsigned operations = 24;
};

struct IdSetPair {
    Mox::IdSet set;
    IdSetModel model = {};
};

inline IdSetPair idSetPair(std::uint16_t size) { return {Mox::IdSet(size), IdSetModel{size}}; }

// Takes the step on `pair`, with `other` of the same size on the right of what takes two. What differs; or empty.
inline std::string take(IdSetStep const& step, IdSetPair& pair, IdSetPair const& other) {
    using Mox::BucketId;
    using Mox::Id;
    using Mox::IdSet;
    IdSet& set = pair.set;
    IdSetModel& model = pair.model;
    auto const id = [](unsigned n) { return Id(static_cast<Mox::U16>(n)); };
    auto const orOp = [](auto x, auto y) { return x | y; };
    auto const andOp = [](auto x, auto y) { return x & y; };
    auto const minusOp = [](auto x, auto y) { return x & ~y; };
    auto const xorOp = [](auto x, auto y) { return x ^ y; };
    unsigned const a = model.size ? step.a % model.size : 0;
    unsigned const b = model.size ? step.b % model.size : 0;
    auto const key = static_cast<Mox::U8>(step.a);
    bool same = true;
    auto const keysBefore = model.keys();
    auto const counterBefore = set.bucketChangeCounter();
    unsigned const operation = step.operation % IdSetStep::operations;
    bool const onMember = operation < 5;
    if (onMember && model.size == 0) return {};
    switch (operation) {
    case 0:
        same = set.updateId(id(a), true) == model.updateId(a, true);
        break;
    case 1:
        same = set.idIs(id(a), false) == model.updateId(a, false);
        break;
    case 2:
        same = set.idDel(id(a)) == model.updateId(a, false);
        break;
    case 3:
        set.idSetRange(id(std::min(a, b)), id(std::max(a, b) + 1));
        model.setRange(std::min(a, b), std::max(a, b) + 1);
        break;
    case 4:
        same = set.id(id(a)) == model.id(a) && set.idExists(id(a)) == model.id(a) && !set.idExists(Id()) &&
               set.nextId(id(a)).value() == model.nextId(a) &&
               set.idIteratorConst(id(a)).operator bool() == (model.id(a) || model.nextId(a) != IdSetModel::null);
        break;
    case 5:
        set.bucketIs(key, step.word);
        model.buckets[key] = step.word;
        break;
    case 6:
        set.bucketIs(key, 0);
        model.buckets[key] = 0;
        break;
    case 7:
        same = set.bucketDel(BucketId(key)) == model.word(key);
        model.buckets.erase(key);
        break;
    case 8:
        set.updateBucket(key, step.word);
        model.update(key, step.word);
        break;
    case 9:
        set.updateBucket(key, 0);
        model.update(key, 0);
        break;
    case 10:
        set.idSetAll();
        model.setAll();
        break;
    case 11:
        if (step.b % 4) break;  // seldom
        set.bucketDelAll();
        model.buckets.clear();
        break;
    case 12:
        same = &(set |= other.set) == &set, model.combine(other.model, orOp);
        break;
    case 13:
        same = &(set &= other.set) == &set, model.combine(other.model, andOp);
        break;
    case 14:
        same = &(set -= other.set) == &set, model.combine(other.model, minusOp);
        break;
    case 15:
        same = &(set ^= other.set) == &set, model.combine(other.model, xorOp);
        break;
    case 16:
        set = set | other.set, model.combine(other.model, orOp);
        break;
    case 17:
        set = set & other.set, model.combine(other.model, andOp);
        break;
    case 18: {
        IdSetModel result = other.model;
        result.combine(model, minusOp);
        set = other.set - set;
        model = result;
        break;
    }
    case 19:
        set = set ^ other.set, model.combine(other.model, xorOp);
        break;
    case 20:
        set = ~set, model.complement();
        break;
    case 21: {
        IdSet copy = set;
        copy.bucketIs(key, step.word);  // which leaves the original alone
        IdSet moved = std::move(copy);
        copy = set;
        same = copy == set && (moved == set) == (set.bucketExists(key) && set.bucket(key) == step.word);
        set = std::move(copy);
        break;
    }
    case 22: {
        bool subset = true, disjoint = true;
        unsigned common = 0;
        for (auto const& [bucket, word] : model.buckets) {
            subset = subset && (word & ~other.model.word(bucket)) == 0;
            disjoint = disjoint && (word & other.model.word(bucket)) == 0;
            common += static_cast<unsigned>(std::popcount(word & other.model.word(bucket)));
        }
        same = set.isSubsetOf(other.set) == subset && set.isDisjointFrom(other.set) == disjoint &&
               set.idsInCommon(other.set) == common;
        break;
    }
    case 23:
        same = (set == other.set) == (model == other.model) && (set < other.set) == (model < other.model) &&
               (other.set < set) == (other.model < model) && (!(set == other.set) || set.hash(9) == other.set.hash(9));
        break;
    }
    auto const where = [&] {
        std::ostringstream text;
        text << "operation " << operation << " (" << step.a << ", " << step.b << ", " << step.word << ")";
        return text.str();
    };
    if (!same) return "result of " + where();
    bool const moved = operation < 12 && model.keys() != keysBefore;
    if (moved && set.bucketChangeCounter() == counterBefore) return "change counter did not move in " + where();
    return {};
}
