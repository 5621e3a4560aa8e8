#include "Allocations.h"
#include "CellTest.h"

#include <vector>

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

    QuietSystem quiet;
};

// Objects are in pages, which are not counted; but each has a name.
TEST_F(CellAllocationTest, CountingSeesStrings) {
    std::vector<Vel::Ptr<Cell::Status>> all(1000);
    EXPECT_GE(allocationsOf([&] {
        for (auto& one : all) one = Cell::statusFactory("some name");
    }),
        all.size());
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
