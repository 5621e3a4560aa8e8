#include "Mox/internal/PathIndex.h"

#include "Mox/PrefixTrie.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

// The index of whole paths, as a data structure of its own.
namespace {

using Mox::PrefixTrie;
using Mox::Detail::IndexedPath;
using Mox::Detail::PathIndex;
using Mox::Detail::PathScan;
using Vel::U32;
using Vel::U64;

std::vector<U32> endsOf(std::string_view path) {
    PathScan const scan(path, PathScan::Cuts::yes);
    EXPECT_TRUE(scan.usable()) << path;
    std::vector<U32> ends;
    scan.visitEnds([&](U32 end) { ends.push_back(end); });
    return ends;
}

TEST(PathScanTest, PathIsCutAsATrieCutsIt) {
    EXPECT_EQ(endsOf("a/b.c"), (std::vector<U32>{1, 3, 5}));
    EXPECT_EQ(endsOf("/x/y"), (std::vector<U32>{2, 4}));
    EXPECT_EQ(endsOf(".x"), (std::vector<U32>{2}));
    EXPECT_EQ(endsOf("a//b"), (std::vector<U32>{1, 2, 4}));
    EXPECT_EQ(endsOf("/"), (std::vector<U32>{1}));
    EXPECT_EQ(endsOf("seven77/eight888.\xAF\x80\xAE-0/"), (std::vector<U32>{7, 16, 22, 23}));
    std::mt19937 random(1);
    for (unsigned i = 0; i < 2000; ++i) {
        std::string path;
        for (std::size_t length = 1 + random() % IndexedPath::maxLength; path.size() < length;)
            path += "/.a\xAF\x2D\x30"[random() % 6];
        std::vector<U32> expected;
        for (std::string_view rest = path; !rest.empty();) {
            Mox::Detail::PathStep const step(rest);
            rest = step.rest;
            expected.push_back(static_cast<U32>(path.size() - rest.size()));
        }
        ASSERT_EQ(endsOf(path), expected) << path;
    }
}

TEST(PathScanTest, EmptyStarredAndLongPathsAreOfNoUse) {
    for (std::string const& path : {std::string(), std::string("*"), std::string("a/b*/c"), std::string("1234567*"),
             std::string("12345678*"), std::string("12345678/*2345678/abc"), std::string(257, 'a')})
        EXPECT_FALSE(PathScan(path).usable()) << path;
    for (std::string const& path :
        {std::string("a"), std::string("12345678"), std::string("+)\xAA"), std::string(256, 'a')})
        EXPECT_TRUE(PathScan(path).usable()) << path;
}

TEST(PathScanTest, PrefixHasTheHashThatItHasByItself) {
    std::string path;
    for (unsigned i = 0; i < IndexedPath::maxLength; ++i) path += static_cast<char>('A' + i % 50);
    PathScan const whole(path);
    std::map<U64, U32> hashes;
    for (U32 end = 1; end <= path.size(); ++end) {
        std::string const prefix = path.substr(0, end);  // of exactly that size: more must not be read
        PathScan const scan(prefix);
        EXPECT_EQ(whole.hash(end), scan.hash(end)) << end;
        std::vector<U64> words(PathScan::wordsOf(end));
        scan.copyTo(words.data());
        EXPECT_EQ(PathScan::hash(words.data(), end), scan.hash(end)) << end;
        EXPECT_TRUE(whole.isSame(words.data(), end));
        words.back() ^= 1;
        EXPECT_FALSE(whole.isSame(words.data(), end));
        EXPECT_TRUE(hashes.emplace(scan.hash(end), end).second);
    }
    EXPECT_NE(PathScan(std::string("a")).hash(1), PathScan(std::string("a\0", 2)).hash(2));
}

// Who does not know the secret can't tell which paths collide: it changes all hashes.
TEST(PathScanTest, HashIsKeyedByTheSecretOfTheProcess) {
    std::string const path = "interface/Ethernet1.counters";
    U64 const hash = PathScan(path).hash(28);
    auto const before = Vel::ProcessSecret::valueIs(Vel::TableSecret::fromSeed(99));
    U64 const other = PathScan(path).hash(28);
    Vel::ProcessSecret::valueIs(before);
    EXPECT_NE(hash, other);
    EXPECT_NE(hash >> 32, other >> 32);
    EXPECT_EQ(PathScan(path).hash(28), hash);
}

TEST(IndexedPathTest, TakesOnlyWhatIsCutInTheSamePlaces) {
    IndexedPath path;
    EXPECT_FALSE(path.push(""));
    EXPECT_FALSE(path.push("a/b"));
    EXPECT_FALSE(path.push("a*"));
    EXPECT_TRUE(path.push("/a"));
    EXPECT_FALSE(path.push("b"));
    EXPECT_FALSE(path.push(""));
    EXPECT_FALSE(path.push("/b.c"));
    EXPECT_FALSE(path.push("/*b"));
    EXPECT_TRUE(path.push(".b"));
    EXPECT_TRUE(path.push("/"));
    EXPECT_EQ(path.text(), "/a.b/");
    path.lengthIs(4);
    EXPECT_FALSE(path.push("/" + std::string(252, 'c')));
    EXPECT_TRUE(path.push("/" + std::string(251, 'c')));
    EXPECT_EQ(path.length(), IndexedPath::maxLength);
}

class PathIndexTest : public testing::Test {
protected:
    static std::string random(std::mt19937& random, unsigned components) {
        std::string path;
        for (unsigned i = 0; i < components; ++i) {
            if (i) path += random() % 2 ? '/' : '.';
            path += std::to_string(random() % 8 ? random() % 4 : random() % 100000);
        }
        return path;
    }
    PathIndex index;
    Vel::Ptr<PrefixTrie> const nodes[2] = {Mox::prefixTrieFactory("0"), Mox::prefixTrieFactory("1")};
};

TEST_F(PathIndexTest, EmptyOneFindsNothing) {
    EXPECT_EQ(index.find(PathScan("a")), nullptr);
    EXPECT_EQ(index.longest(PathScan("a/b", PathScan::Cuts::yes), false), 0u);
    index.remove(PathScan("a"));
    EXPECT_EQ(index.size(), 0u);
    EXPECT_EQ(index.memory(), 0u);
}

TEST_F(PathIndexTest, DoesWhatAMapDoes) {
    std::map<std::string, PrefixTrie*> expected;
    std::mt19937 generator(1);
    for (unsigned i = 0; i < 60000; ++i) {
        std::string const path = random(generator, 1 + static_cast<unsigned>(generator() % 6));
        bool const grows = i / 15000 % 2 == 0;
        auto const found = expected.find(path);
        ASSERT_EQ(index.find(PathScan(path)), found == expected.end() ? nullptr : found->second) << path;
        if (found != expected.end() && (!grows || generator() % 4 == 0)) {
            index.remove(PathScan(path));
            expected.erase(found);
        } else if (found == expected.end() && (grows || generator() % 4 == 0)) {
            PrefixTrie& node = *nodes[generator() % 2];
            ASSERT_TRUE(index.add(PathScan(path), node));
            expected.emplace(path, &node);
        }
        ASSERT_EQ(index.size(), expected.size());
        std::string const asked = random(generator, 4) + (generator() % 2 ? "/x" : "");
        for (bool const proper : {false, true}) {
            std::size_t length = proper ? asked.find_last_of("/.") : asked.size();
            while (length != 0 && length != std::string::npos && !expected.contains(asked.substr(0, length)))
                length = length < 2 ? 0 : asked.find_last_of("/.", length - 1);
            if (length == std::string::npos) length = 0;
            ASSERT_EQ(index.longest(PathScan(asked, PathScan::Cuts::yes), proper), length) << asked;
        }
    }
    while (!expected.empty()) {
        index.remove(PathScan(expected.begin()->first));
        expected.erase(expected.begin());
    }
    EXPECT_EQ(index.size(), 0u);
}

// Also what is added and removed again and again, in ever new places: what is dead is swept out.
TEST_F(PathIndexTest, TakesFewBytesAPath) {
    std::mt19937 generator(2);
    std::vector<std::string> paths;
    for (unsigned i = 0; i < 40000; ++i) {
        std::string const path = "interface/Ethernet" + std::to_string(i) + "/counters";
        ASSERT_TRUE(index.add(PathScan(path), *nodes[0]));
        paths.push_back(path);
        if (paths.size() < 1000) continue;
        std::swap(paths[generator() % paths.size()], paths.back());
        index.remove(PathScan(paths.back()));
        paths.pop_back();
    }
    EXPECT_EQ(index.size(), 999u);
    for (auto const& path : paths) ASSERT_TRUE(index.find(PathScan(path)));
    EXPECT_LT(index.memory() / index.size(), 90u);
}

TEST_F(PathIndexTest, RoomThatWasMadeIsNotMadeAgain) {
    ASSERT_TRUE(index.reserve(1000, 5000));
    auto const memory = index.memory();
    for (unsigned i = 0; i < 1000; ++i)
        ASSERT_TRUE(index.add(PathScan("interface/Ethernet" + std::to_string(i)), *nodes[0]));
    EXPECT_EQ(index.memory(), memory);
}

TEST_F(PathIndexTest, IsWorthItsUpkeepWhileQuestionsKeepUpWithChanges) {
    EXPECT_TRUE(index.countChanges(63));
    EXPECT_FALSE(index.countChanges(1));
    for (unsigned i = 0; i < 1000; ++i) index.countQuestion();
    EXPECT_TRUE(index.countChanges(63));
    EXPECT_FALSE(index.countChanges(1));
    for (unsigned i = 0; i < 1000; ++i) ASSERT_TRUE(index.add(PathScan("a/" + std::to_string(i)), *nodes[0]));
    for (unsigned i = 0; i < 2000; ++i) index.countQuestion();
    EXPECT_TRUE(index.countChanges(1063));
    EXPECT_FALSE(index.countChanges(1));
}

}  // namespace
