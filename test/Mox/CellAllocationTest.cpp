#include "CellTest.h"

#include <atomic>
#include <cstdlib>

// Under a sanitizer the allocator is the sanitizer's, and nothing is counted.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ALLOCATIONS_ARE_COUNTED 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define ALLOCATIONS_ARE_COUNTED 0
#endif
#endif
#if !defined(ALLOCATIONS_ARE_COUNTED) && defined(__GLIBC__)
#define ALLOCATIONS_ARE_COUNTED 1
#endif

namespace {

std::atomic<unsigned long> allocations;

}

#if ALLOCATIONS_ARE_COUNTED
// Everything that allocates in this process, operator new included, comes here.
extern "C" {
void* __libc_malloc(std::size_t size);
__attribute__((visibility("default"))) void* malloc(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}
}
#endif

namespace {

// An environment that allocates nothing, and no files.
class QuietSystem : public Vel::SystemCalls {
public:
    QuietSystem() : before_(Vel::System::callsIs(this)) {}
    QuietSystem(QuietSystem const&) = delete;
    QuietSystem& operator=(QuietSystem const&) = delete;
    ~QuietSystem() override { Vel::System::callsIs(before_); }

    char const* getenv(char const*) override { return "1"; }
    int open(char const*, int) override {
        errno = ENOENT;
        return -1;
    }

private:
    Vel::SystemCalls* before_;
};

class CellAllocationTest : public CellTest {
protected:
    void SetUp() override {
        if (!ALLOCATIONS_ARE_COUNTED) GTEST_SKIP() << "allocations are not counted in this build";
    }
    template <class F> static unsigned long allocationsOf(F f) {
        auto const before = allocations.load();
        f();
        return allocations.load() - before;
    }

    QuietSystem quiet;
};

TEST_F(CellAllocationTest, CountingSeesStringsAndObjects) {
    EXPECT_GE(allocationsOf([] { Cell::statusFactory("some name"); }), 2u);
}

TEST_F(CellAllocationTest, CachedCellIdAllocatesNothing) {
    EXPECT_GT(allocationsOf([] { EXPECT_EQ(Cell::cellId(), 1u); }), 0u);
    EXPECT_EQ(allocationsOf([] { EXPECT_EQ(Cell::cellId(), 1u); }), 0u);
}

TEST_F(CellAllocationTest, CachedTextsAreShared) {
    Cell::product();
    EXPECT_EQ(allocationsOf([] { EXPECT_EQ(Cell::product(), "1"); }), 0u);
}

TEST_F(CellAllocationTest, NothingIsBuiltForTracingThatIsOff) {
    Cell::activeCellId();
    EXPECT_EQ(allocationsOf([] { EXPECT_EQ(Cell::activeCellId(), 1u); }), 0u);
}

}  // namespace
