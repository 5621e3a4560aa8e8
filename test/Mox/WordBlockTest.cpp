#include "Mox/IdSet.h"

#include "Allocations.h"

#include <gtest/gtest.h>

#if ALLOCATIONS_ARE_COUNTED
#include <malloc.h>
#endif

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

// Sets of many words on several threads: each thread keeps blocks of words for its next sets, also those of sets that
// it got from another.
namespace {

using Mox::IdSet;
using Vel::U64;
using Vel::U8;

// What threads pass on to each other; next() waits.
template <class T> class Channel {
public:
    void put(T value) {
        std::lock_guard const lock(mutex_);
        values_.push_back(std::move(value));
        arrived_.notify_one();
    }
    T next() {
        std::unique_lock lock(mutex_);
        arrived_.wait(lock, [&] { return !values_.empty(); });
        T value = std::move(values_.front());
        values_.pop_front();
        return value;
    }

private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<T> values_;
};

constexpr unsigned buckets = 255;

IdSet filledWith(U64 word) {
    IdSet set(16320);
    for (unsigned b = 0; b < buckets; ++b) set.bucketIs(static_cast<U8>(b), word);
    return set;
}
bool holdsOnly(IdSet const& set, U64 word) {
    auto const range = set.bucketRange();
    return set.buckets() == buckets &&
           std::all_of(range.begin(), IdSet::BucketRange::Iterator(), [=](auto entry) { return entry.word == word; });
}

TEST(WordBlockTest, NoBlockHasTwoHoldersWhicheverThreadGivesItBack) {
    Channel<std::pair<U64, IdSet>> there;
    Channel<std::pair<U64, IdSet>> back;
    constexpr U64 rounds = 1000;
    std::jthread const other([&] {
        for (U64 i = 1; i <= rounds; ++i) {
            auto [word, set] = there.next();
            EXPECT_TRUE(holdsOnly(set, word)) << word;
            set = IdSet();  // whose block this thread keeps, and takes again
            back.put({~word, filledWith(~word)});
        }
    });
    std::deque<std::pair<U64, IdSet>> held;  // more than a thread keeps
    for (U64 i = 1; i <= rounds; ++i) {
        there.put({i, filledWith(i)});
        held.push_back(back.next());
        for (auto const& [word, set] : held) EXPECT_TRUE(holdsOnly(set, word)) << word;
        if (held.size() == 12) held.clear();
    }
}

TEST(WordBlockTest, SetsMadeOnOneThreadDieOnAnother) {
    for (int round = 0; round < 20; ++round) {
        std::vector<IdSet> sets;
        std::jthread([&] {
            for (Vel::U16 i = 0; i < 20; ++i) {
                IdSet set(16320);
                set.idSetAll();
                set.idDel(i);
                sets.push_back(std::move(set));
            }
        }).join();
        for (Vel::U16 i = 0; i < 20; ++i) ASSERT_FALSE(sets[i].id(i));
        IdSet const all = sets[0] | sets[1];
        ASSERT_EQ(all.ids(), 16320);
    }
}

// A thread whose kept blocks are freed before its last set goes.
void endWithASet() {
    std::jthread([] {
        static thread_local IdSet last;
        last = IdSet(16320);  // made before the first block is kept, and so destroyed after the blocks
        last.idSetAll();
        IdSet const passing = ~last;
        ASSERT_EQ(last.ids(), 16320);
    }).join();
}

TEST(WordBlockTest, SetsMayOutliveTheBlocksThatTheirThreadKeeps) { endWithASet(); }

#if ALLOCATIONS_ARE_COUNTED
TEST(WordBlockTest, ThreadsThatEndLeaveNoBlocks) {
    endWithASet();
    std::size_t const before = mallinfo2().uordblks;
    for (int i = 0; i < 100; ++i) endWithASet();
    EXPECT_LT(mallinfo2().uordblks, before + 50 * 2048);
}
#endif

}  // namespace
