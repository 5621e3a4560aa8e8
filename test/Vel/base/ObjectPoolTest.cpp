#include "Vel/base/ObjectPool.h"

#include "Vel/base/Ptr.h"
#include "Vel/describe/GenericIf.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <thread>
#include <utility>
#include <vector>

// Small objects share pages, which are given back.
namespace {

using Vel::ObjectPool;

constexpr std::size_t size = 104;  // bytes. No other object of this test program has this size for long
constexpr std::size_t pageBytes = 16384;

void* taken() { return ObjectPool::allocate(size); }
void put(void* block) { ObjectPool::free(block, size); }
std::vector<void*> takenBlocks(std::size_t count) {
    std::vector<void*> blocks(count);
    for (void*& block : blocks) block = taken();
    return blocks;
}
void putAll(std::vector<void*> const& blocks) { std::ranges::for_each(blocks, put); }
std::uintptr_t pageOf(void const* block) { return reinterpret_cast<std::uintptr_t>(block) / pageBytes; }
template <class F> void inThread(F f) { std::jthread const thread(f); }

class ObjectPoolTest : public testing::Test {
protected:
    void SetUp() override {
        if (!ObjectPool::used) GTEST_SKIP() << "objects come from the C library";
        put(taken());  // so that this thread has the page that it keeps
        before_ = ObjectPool::pages();
    }
    void TearDown() override {
        if (!ObjectPool::used) return;
        EXPECT_EQ(newPages(), 0u);
    }
    std::size_t newPages() const { return ObjectPool::pages() - before_; }

private:
    std::size_t before_ = 0;
};

TEST_F(ObjectPoolTest, BlocksOfAllSizesAreApartAndAligned) {
    std::vector<std::pair<unsigned char*, std::size_t>> blocks;
    for (unsigned i = 0; i < 20 * ObjectPool::maxSize; ++i) {
        std::size_t const bytes = 1 + i % (ObjectPool::maxSize + 2);  // the largest comes from the C library
        auto* const block = static_cast<unsigned char*>(ObjectPool::allocate(bytes));
        ASSERT_EQ(reinterpret_cast<std::uintptr_t>(block) % (bytes % 16 == 0 ? 16 : 8), 0u) << bytes;
        std::memset(block, static_cast<int>(i % 251), bytes);
        blocks.emplace_back(block, bytes);
    }
    for (unsigned i = 0; i < blocks.size(); ++i) {
        auto const [block, bytes] = blocks[i];
        ASSERT_EQ(std::count(block, block + bytes, i % 251), static_cast<std::ptrdiff_t>(bytes));
    }
    EXPECT_GT(newPages(), 0u);
    for (auto const& [block, bytes] : blocks) ObjectPool::free(block, bytes);
    EXPECT_LE(newPages(), ObjectPool::maxSize / 8);  // one of each size is kept
    SetUp();
}

TEST_F(ObjectPoolTest, BlocksShareAPage) {
    auto const blocks = takenBlocks(1000);
    EXPECT_GE(newPages(), 1000 * size / pageBytes);
    EXPECT_LE(newPages(), 1000 / (pageBytes / size - 6));
    putAll(blocks);
}

TEST_F(ObjectPoolTest, PagesAreGivenBackInWhateverOrderBlocksAreFreed) {
    for (unsigned seed = 0; seed < 20; ++seed) {
        std::mt19937 random(seed);
        auto blocks = takenBlocks(2000);
        std::shuffle(blocks.begin(), blocks.end(), random);
        for (std::size_t i = 0; i < 1000; ++i) put(std::exchange(blocks[i], taken()));
        std::shuffle(blocks.begin(), blocks.end(), random);
        EXPECT_GT(newPages(), 10u);
        putAll(blocks);
        EXPECT_EQ(newPages(), 0u) << seed;
    }
}

TEST_F(ObjectPoolTest, FreedBlockIsUsedAgain) {
    void* const block = taken();
    put(block);
    EXPECT_EQ(taken(), block);
    put(block);
}

TEST_F(ObjectPoolTest, EmptyPageIsGivenBackWhenAnotherGetsRoom) {
    std::vector<void*> first = takenBlocks(1);
    while (newPages() == 0) first.push_back(taken());  // two pages now: one full, and one with this one block
    void* const alone = first.back();
    first.pop_back();
    put(alone);  // the empty page is kept, since it is the only one with room
    EXPECT_EQ(newPages(), 1u);
    put(first.back());
    first.pop_back();
    EXPECT_EQ(newPages(), 0u);
    putAll(first);
}

TEST_F(ObjectPoolTest, BlocksThatAnotherThreadFreesAreUsedAgain) {
    std::size_t most = 0;
    for (int round = 0; round < 50; ++round) {
        auto const blocks = takenBlocks(500);
        most = std::max(most, newPages());
        inThread([&] { putAll(blocks); });
    }
    EXPECT_LE(most, 2 * 500 * size / pageBytes);
    auto const blocks = takenBlocks(500);
    putAll(blocks);
}

TEST_F(ObjectPoolTest, ThreadThatEndsGivesItsPagesBack) {
    inThread([] { putAll(takenBlocks(1000)); });
    EXPECT_EQ(newPages(), 0u);
}

TEST_F(ObjectPoolTest, BlocksThatWereFreedElsewhereAreGivenBackWhenTheThreadEnds) {
    inThread([] {
        auto const blocks = takenBlocks(1000);
        inThread([&] { putAll(blocks); });
    });
    EXPECT_EQ(newPages(), 0u);
}

TEST_F(ObjectPoolTest, BlocksOutliveTheirThread) {
    std::vector<void*> blocks;
    inThread([&] { blocks = takenBlocks(1000); });
    EXPECT_GT(newPages(), 0u);
    putAll(blocks);
    EXPECT_EQ(newPages(), 0u);
}

TEST_F(ObjectPoolTest, NextThreadTakesOverThePagesOfOneThatHasEnded) {
    void* first = nullptr;
    void* second = nullptr;
    inThread([&] { first = taken(); });
    inThread([&] { second = taken(); });
    EXPECT_EQ(pageOf(first), pageOf(second));
    EXPECT_NE(first, second);
    put(first);
    put(second);
}

TEST_F(ObjectPoolTest, ThreadsFreeEachOthersBlocksAtAllTimes) {
    constexpr unsigned threads = 4;
    std::vector<void*> blocks[threads];
    for (int round = 0; round < 20; ++round) {
        std::vector<std::jthread> running;
        for (unsigned i = 0; i < threads; ++i)
            running.emplace_back([&mine = blocks[i]] {
                putAll(mine);
                mine = takenBlocks(300);
                for (std::size_t k = 0; k < mine.size(); k += 2) put(std::exchange(mine[k], taken()));
            });
        running.clear();
        std::rotate(blocks, blocks + 1, blocks + threads);
    }
    for (auto const& some : blocks) putAll(some);
}

TEST_F(ObjectPoolTest, AThreadMayStillAllocateWhileItExits) {
    struct Late {
        void* block = nullptr;
        std::vector<void*> others;
        ~Late() {
            put(block);
            others = takenBlocks(300);
            putAll(others);
        }
    };
    inThread([] {
        thread_local Late late;  // destroyed after what the pool has for the thread, which is made later
        late.block = nullptr;
        late.block = taken();
    });
    EXPECT_EQ(newPages(), 0u);
}

// --- objects ---

template <std::size_t bytes> struct Sized : Vel::PtrInterface {
    Vel::VelType fwkType() const override { return {}; }
    char more[bytes - 16];
};

TEST_F(ObjectPoolTest, ObjectsOfDerivedClassesHaveTheirOwnSizes) {
    static_assert(sizeof(Sized<size>) == size && sizeof(Sized<136>) == 136);
    std::vector<Vel::Ptr<Vel::PtrInterface>> objects;
    for (int i = 0; i < 1000; ++i) objects.emplace_back(new Sized<136>);
    EXPECT_EQ(newPages(), 0u);
    for (int i = 0; i < 1000; ++i) objects.emplace_back(new Sized<size>);
    EXPECT_GE(newPages(), 1000 * size / pageBytes);
    objects.clear();
    EXPECT_EQ(newPages(), 0u);
}

}  // namespace
