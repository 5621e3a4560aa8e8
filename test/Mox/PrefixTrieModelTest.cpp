#include "PrefixTrieModel.h"
#include "PrefixTrieTest.h"

#include "Mox/internal/PathIndex.h"

#include <array>
#include <random>

// Tries in lock step with a plain model, under random operations on paths of few different components.
namespace {

using Mox::Detail::IndexUse;
using TrieTest::Model;
using TrieTest::Pair;
using TrieTest::Tags;

struct Variant {
    bool plain;  // paths are left to the base
    bool prunedAreDestroyed;
    bool freshTags;
    unsigned seed;
    IndexUse index = IndexUse::itself;
};

class PrefixTrieModelTest : public PrefixTrieTest, public testing::WithParamInterface<Variant> {
protected:
    PrefixTrieModelTest() {
        RecordProperty("seed", static_cast<int>(GetParam().seed));
        hooks.recording = false;
        Mox::Detail::PathIndex::use = GetParam().index;
        hooks.prunedAreDestroyed = GetParam().prunedAreDestroyed;
        if (GetParam().freshTags) hooks.freshTags = {"fresh"};
    }
    ~PrefixTrieModelTest() override { Mox::Detail::PathIndex::use = IndexUse::itself; }

    Pair pair() const {
        if (GetParam().plain) return {TrieTest::Plain::newEntity("root"), {}};
        return {Trie::newEntity("root"), {}};
    }
    std::string path() {
        static constexpr std::string_view names[] = {"a", "b", "", "cde", "\xAF\x80", "a*", "*", "a*b"};
        std::string text;
        for (unsigned parts = below(5) + 1; parts > 0; --parts) {
            text += names[below(10) ? below(3) : below(std::size(names))];
            if (below(6) == 0) text += '*';
            if (parts > 1 || below(20) == 0) text += below(3) ? '/' : '.';
        }
        return text;
    }
    unsigned below(std::size_t limit) { return static_cast<unsigned>(random_() % limit); }
    Tags tags() {
        Tags some;
        for (unsigned n = below(3); n > 0; --n) some.insert(std::to_string(below(12)));
        return some;
    }

private:
    std::mt19937 random_{GetParam().seed};
};

INSTANTIATE_TEST_SUITE_P(Variants, PrefixTrieModelTest,
    testing::Values(Variant{false, false, false, 1}, Variant{false, true, true, 2}, Variant{true, false, true, 3},
        Variant{true, true, false, 4}));
INSTANTIATE_TEST_SUITE_P(WithIndex, PrefixTrieModelTest,
    testing::Values(Variant{false, true, true, 5, IndexUse::always}, Variant{true, false, true, 6, IndexUse::always},
        Variant{true, true, false, 7, IndexUse::always}));
INSTANTIATE_TEST_SUITE_P(WithoutIndex, PrefixTrieModelTest,
    testing::Values(Variant{false, true, true, 8, IndexUse::never}, Variant{true, false, true, 9, IndexUse::never}));

TEST_P(PrefixTrieModelTest, EveryOperationDoesWhatTheModelDoes) {
    std::array<Pair, 3> pairs{pair(), pair(), pair()};
    hooks.newStates = 0;
    unsigned expectedStates = 0;
    for (unsigned i = 0; i < 4000; ++i) {
        Pair& one = pairs[below(pairs.size())];
        std::string const at = path();
        auto const before = one.model.newStates;
        unsigned const operation = below(100);
        if (operation < 45 && Model::mayBeAdded(at)) {
            Tags const given = tags();
            one.trie->prefixIs(at, stateOf("s", given));
            one.model.add(at, given);
        } else if (operation < 90) {
            one.trie->prefixDel(at);
            one.model.del(at);
        } else if (operation < 93) {
            Pair const& other = pairs[below(pairs.size())];
            if (&other == &one) continue;
            one.trie->append(other.trie);
            one.model.append(other.model);
        } else if (operation == 99) {
            one.trie->emptyIs(true);
            one.model.empty({});
        }
        expectedStates += one.model.newStates - before;
        for (unsigned n = 0; n < 3; ++n)
            ASSERT_EQ(differentAnswer(one, n ? path() : at), "") << "step " << i << ", seed " << GetParam().seed;
        if (i % 8 == 0) {
            ASSERT_EQ(differentNode(*one.trie, one.model), "") << "step " << i << " at " << at;
        }
        ASSERT_EQ(hooks.newStates, expectedStates) << "step " << i;
    }
}

TEST_P(PrefixTrieModelTest, WideNodesGrowAndShrink) {
    Pair one = pair();
    std::vector<std::string> paths;
    for (unsigned i = 0; i < 300; ++i) paths.push_back("top/" + std::to_string(i) + "/x");
    for (int round = 0; round < 2; ++round) {
        for (unsigned i = 0; i < paths.size(); ++i) std::swap(paths[i], paths[below(paths.size())]);
        for (auto const& at : paths) {
            one.trie->prefixIs(at, stateOf("s"));
            one.model.add(at, {});
            ASSERT_EQ(differentAnswer(one, paths[below(paths.size())]), "");
        }
        ASSERT_EQ(differentNode(*one.trie, one.model), "");
        for (unsigned i = 0; i < paths.size(); ++i) std::swap(paths[i], paths[below(paths.size())]);
        for (auto const& at : paths) {
            one.trie->prefixDel(at);
            one.model.del(at);
            ASSERT_EQ(differentAnswer(one, paths[below(paths.size())]), "");
        }
        ASSERT_EQ(differentNode(*one.trie, one.model), "");
    }
    EXPECT_TRUE(one.trie->empty());
}

}  // namespace
