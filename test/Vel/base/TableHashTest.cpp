#include "Vel/base/TableHash.h"

#include "Vel/base/Hash.h"
#include "Vel/base/System.h"
#include "Vel/entity/HashMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

// Hashes of tables in memory: nobody who does not know the process's secret can make keys collide.
namespace {

using Vel::Hash;
using Vel::KeyHash;
using Vel::ProcessSecret;
using Vel::String;
using Vel::TableSecret;
using Vel::U32;
using Vel::U64;

// A secret in force for a while. No table outlives it here.
class Secret {
public:
    explicit Secret(TableSecret const& secret) : before_(ProcessSecret::valueIs(secret)) {}
    Secret(Secret const&) = delete;
    Secret& operator=(Secret const&) = delete;
    ~Secret() { ProcessSecret::valueIs(before_); }

private:
    TableSecret const before_;
};

// --- keys that collide where the hash is public ---

constexpr unsigned many = 4000;

std::string textOf(U64 a, U64 b) {
    std::string text(16, '\0');
    std::memcpy(text.data(), &a, 8);
    std::memcpy(text.data() + 8, &b, 8);
    return text;
}

// Under wyhash as published: the first word makes a factor 0, whatever the other factor.
std::vector<std::string> zeroFactorTexts() {
    std::vector<std::string> texts;
    for (U64 i = 0; i < many; ++i) texts.push_back(textOf(0xa0761d6478bd642ful, i * 0x9e3779b97f4a7c15ul));
    return texts;
}

constexpr U64 inverse(U64 odd) {  // modulo 2^64, by Newton's method
    U64 x = odd;
    for (int i = 0; i < 6; ++i) x *= 2 - odd * x;
    return x;
}
constexpr U64 multiplierBack = inverse(Hash::multiplier);
// The number whose piece that is.
constexpr U64 unpieced(U64 piece) {
    U64 const x = piece * multiplierBack;
    return (x ^ x >> 47) * multiplierBack;
}

// Under Vel::Hash: the second word makes up for the first.
std::vector<std::string> polynomialTexts() {
    std::vector<std::string> texts;
    for (U64 i = 0; i < many; ++i) texts.push_back(textOf(i, unpieced(0 - Hash::piece<8>(i) * Hash::multiplier)));
    return texts;
}

// Under Vel::Hash: states whose lower half alone differs when they are finished, run backwards.
std::vector<U64> unfinishedNumbers() {
    std::vector<U64> numbers;
    for (U64 i = 0; i < many; ++i) {
        U64 h = U64(0x12345678) << 32 | i;
        h = (h ^ h >> 33) * inverse(0xc4ceb9fe1a85ec53ul);
        h = (h ^ h >> 33) * inverse(0xff51afd7ed558ccdul);
        h ^= h >> 33;
        numbers.push_back(unpieced(h * multiplierBack - Hash(0).state()));
    }
    return numbers;
}

// --- what looking each of them up costs ---

// Slots looked at on average, in a table as ours are: probed linearly, at most three quarters full.
double probes(std::vector<U32> const& hashes) {
    std::size_t size = 16;
    while (size / 4 * 3 < hashes.size()) size *= 2;
    std::vector<bool> taken(size);
    U64 sum = 0;
    for (U32 const hash : hashes) {
        std::size_t i = hash & (size - 1);
        for (++sum; taken[i]; i = (i + 1) & (size - 1)) ++sum;
        taken[i] = true;
    }
    return double(sum) / double(hashes.size());
}
template <class Key> double probesOf(std::vector<Key> const& keys) {
    std::vector<U32> hashes;
    for (auto const& key : keys) {
        if constexpr (std::is_same_v<Key, std::string>)
            hashes.push_back(KeyHash<String>::hash(key, 0));
        else
            hashes.push_back(KeyHash<Key>::hash(key, 0));
    }
    return probes(hashes);
}

TEST(TableHashTest, TheFloodingKeysCollideUnderVelHash) {
    std::set<U32> results;
    for (std::string const& text : polynomialTexts()) {
        U64 a;
        U64 b;
        std::memcpy(&a, text.data(), 8);
        std::memcpy(&b, text.data() + 8, 8);
        results.insert(Hash(0).hashMix<8>(a).hashMix<8>(b).hashMix<8>(16).result());
    }
    EXPECT_EQ(results.size(), 1u);
    results.clear();
    for (U64 const number : unfinishedNumbers()) results.insert(Hash(0).hashMix<8>(number).result());
    EXPECT_EQ(results, std::set<U32>{0x12345678});
}

TEST(TableHashTest, KeysMadeToCollideSpreadUnderAnySecret) {
    for (int i = 0; i < 10; ++i) {
        Secret const secret(TableSecret::drawn());
        EXPECT_LT(probesOf(zeroFactorTexts()), 2.0);  // 1.5 expected at the load of 4000 in 8192
        EXPECT_LT(probesOf(polynomialTexts()), 2.0);
        EXPECT_LT(probesOf(unfinishedNumbers()), 2.0);
    }
}

// Such as "abaaaaaaa" and "abaaaaaaaa": both words are equal but for bits in which the lengths differ, too.
TEST(TableHashTest, LengthsDoNotMakeUpForWords) {
    std::set<U64> hashes;
    std::size_t texts = 0;
    for (unsigned length = 0; length <= 12; ++length)
        for (unsigned choice = 0; choice < 1u << length; ++choice, ++texts) {
            std::string text(length, 'a');
            for (unsigned i = 0; i < length; ++i) text[i] = choice >> i & 1 ? 'b' : 'a';
            hashes.insert(Vel::tableHash(text, 0, ProcessSecret::value()));
        }
    EXPECT_EQ(hashes.size(), texts);
}

TEST(TableHashTest, EveryBitOfTheSecretCounts) {
    TableSecret const secret = TableSecret::fromSeed(1);
    for (unsigned word = 0; word < 4; ++word)
        for (unsigned bit = 0; bit < 64; ++bit) {
            TableSecret other = secret;
            other.words[word] ^= U64(1) << bit;
            EXPECT_NE(Vel::tableHash("text", 0, other), Vel::tableHash("text", 0, secret)) << word << " " << bit;
            EXPECT_NE(Vel::tableHash(7, 0, other), Vel::tableHash(7, 0, secret)) << word << " " << bit;
        }
}

TEST(TableHashTest, StandardTablesCanHaveIt) {
    std::unordered_set<String, Vel::TableHasher> const texts{"a", "b", "a"};
    EXPECT_EQ(texts.size(), 2u);
    EXPECT_TRUE(texts.contains("b"));
    Vel::TableHasher const hasher;
    EXPECT_EQ(hasher("text"), Vel::tableHash("text", 0, ProcessSecret::value()));
    EXPECT_EQ(hasher(7u), Vel::tableHash(U64(7), 0, ProcessSecret::value()));
    EXPECT_NE(hasher(7u), hasher(8u));
}

// --- the secret ---

class KnownSystem : public Vel::SystemCalls {
public:
    KnownSystem() : before_(Vel::System::callsIs(this)) {}
    KnownSystem(KnownSystem const&) = delete;
    KnownSystem& operator=(KnownSystem const&) = delete;
    ~KnownSystem() override { Vel::System::callsIs(before_); }
    void random(void* to, std::size_t size) noexcept override {
        std::memset(to, 0x2a, size);
        ++asked;
    }
    int asked = 0;

private:
    Vel::SystemCalls* const before_;
};

TEST(ProcessSecretTest, IsDrawnFromTheSystemOnceWhenFirstAskedFor) {
    KnownSystem system;
    Secret const secret(TableSecret{});  // not drawn yet
    EXPECT_EQ(system.asked, 0);
    for (U64 const word : ProcessSecret::value().words) EXPECT_EQ(word, 0x2a2a2a2a2a2a2a2bu);
    ProcessSecret::value();
    EXPECT_EQ(system.asked, 1);
}

TEST(ProcessSecretTest, EachDrawingIsAnother) {
    EXPECT_NE(TableSecret::drawn(), TableSecret::drawn());
    EXPECT_EQ(TableSecret::fromSeed(3), TableSecret::fromSeed(3));
    EXPECT_NE(TableSecret::fromSeed(3), TableSecret::fromSeed(4));
    for (U64 const word : TableSecret::drawn().words) EXPECT_EQ(word % 2, 1u);
}

TEST(ProcessSecretTest, HashesChangeWithIt) {
    U32 first = 0;
    {
        Secret const secret(TableSecret::fromSeed(2));
        first = Vel::hashText("text", 0);
    }
    Secret const secret(TableSecret::fromSeed(3));
    EXPECT_NE(Vel::hashText("text", 0), first);
}

}  // namespace
