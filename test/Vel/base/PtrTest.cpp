#include "Vel/base/Ptr.h"

#include "Vel/base/String.h"
#include "Vel/describe/GenericIf.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <vector>

namespace {

using Vel::Ptr;
using Vel::PtrInterface;
using Vel::U32;

using Log = std::vector<std::string>;

// Notes what happens to it.
class Object : public PtrInterface {
public:
    explicit Object(Log* log = nullptr) : log_(log) {}
    Object(Object const&) = default;
    Object& operator=(Object const&) = default;
    ~Object() override { note("destroyed"); }

    Vel::VelType fwkType() const override { return {}; }
    void zeroReferencesIs(bool zero) override { note(zero ? "zero" : "not zero"); }

protected:
    void note(char const* what) {
        if (log_) log_->push_back(what);
    }

private:
    Log* log_;
};

class Derived : public Object {
public:
    using Object::Object;
};

class Other : public Object {
public:
    using Object::Object;
};

// Sets the counting rule for one test.
class ThreadSafePointers {
public:
    explicit ThreadSafePointers(bool on) { Vel::VFPtrInterface::threadSafePointers_ = on; }
    ThreadSafePointers(ThreadSafePointers const&) = delete;
    ThreadSafePointers& operator=(ThreadSafePointers const&) = delete;
    ~ThreadSafePointers() { Vel::VFPtrInterface::threadSafePointers_ = before_; }

private:
    bool before_ = Vel::VFPtrInterface::threadSafePointers_;
};

// Both counting rules must give the same answers.
class PtrTest : public testing::TestWithParam<bool> {
protected:
    ThreadSafePointers const rule_{GetParam()};
    Log log_;
};

INSTANTIATE_TEST_SUITE_P(
    Counting, PtrTest, testing::Bool(), [](auto const& i) { return i.param ? "Atomically" : "Plainly"; });

static_assert(sizeof(Ptr<Object>) == sizeof(void*));
static_assert(sizeof(PtrInterface) == 16);  // the virtual table's address and the word
static_assert(std::is_convertible_v<Ptr<Derived>, Ptr<Object>>);
static_assert(std::is_convertible_v<Ptr<Object>, Ptr<Object const>>);
static_assert(std::is_convertible_v<Ptr<Derived>, Ptr<Object const>>);
static_assert(!std::is_convertible_v<Ptr<Object>, Ptr<Derived>>);
static_assert(!std::is_convertible_v<Ptr<Object const>, Ptr<Object>>);
static_assert(std::is_nothrow_move_constructible_v<Ptr<Object>>);

TEST(PtrInterfaceTest, CountsPlainlyUnlessToldOtherwise) { EXPECT_FALSE(Vel::VFPtrInterface::threadSafePointers_); }

TEST(PtrInterfaceTest, TheMaskLeavesTwoBitsForFlags) { EXPECT_EQ(PtrInterface::countMask, 0x5FFFFFFFu); }

TEST_P(PtrTest, WordAddReturnsTheWordBefore) {
    U32 word = 5;
    EXPECT_EQ(Vel::referenceWordAdd(word, 3), 5u);
    EXPECT_EQ(word, 8u);
    EXPECT_EQ(Vel::referenceWordAdd(word, ~U32(0)), 8u);
    EXPECT_EQ(word, 7u);
}

TEST_P(PtrTest, CountsItsHolders) {
    Ptr<Object> const a(new Object);
    EXPECT_EQ(a->references(), 1u);
    {
        Ptr<Object> const b(a);
        Ptr<Object const> const c(a);
        EXPECT_EQ(a->references(), 3u);
    }
    EXPECT_EQ(a->references(), 1u);
}

TEST_P(PtrTest, AnObjectThatNothingEverHeldStays) {
    auto const object = std::make_unique<Object>(&log_);
    EXPECT_EQ(object->references(), 0u);
    object->deleteRef();
    EXPECT_EQ(log_, Log());
    object->newRef();
}

TEST_P(PtrTest, TheLastReferenceTellsThenDestroys) {
    Ptr<Object> a(new Object(&log_));
    Ptr<Object> b(a);
    a = nullptr;
    EXPECT_EQ(log_, Log());
    b = nullptr;
    EXPECT_EQ(log_, (Log{"zero", "destroyed"}));
}

TEST_P(PtrTest, FlagsStayWhenTheCountChanges) {
    Ptr<Object> a(new Object(&log_));
    a->hasNotificationActiveIs(true);
    a->velMarkedForDeletionIs(true);
    EXPECT_EQ(a->references(), 1u);
    Ptr<Object> b(a);
    EXPECT_EQ(a->references(), 2u);
    b = nullptr;
    EXPECT_TRUE(a->hasNotificationActive());
    EXPECT_TRUE(a->velMarkedForDeletion());
    a = nullptr;  // set flags don't keep the object
    EXPECT_EQ(log_, (Log{"zero", "destroyed"}));
}

TEST_P(PtrTest, FlagsChangeAlone) {
    Ptr<Object> const a(new Object);
    EXPECT_FALSE(a->hasNotificationActive());
    EXPECT_FALSE(a->velMarkedForDeletion());
    a->hasNotificationActiveIs(true);
    a->hasNotificationActiveIs(true);
    EXPECT_TRUE(a->hasNotificationActive());
    EXPECT_FALSE(a->velMarkedForDeletion());
    a->velMarkedForDeletionIs(true);
    a->hasNotificationActiveIs(false);
    a->hasNotificationActiveIs(false);
    EXPECT_FALSE(a->hasNotificationActive());
    EXPECT_TRUE(a->velMarkedForDeletion());
    EXPECT_EQ(a->references(), 1u);
    a->velMarkedForDeletionIs(false);
    EXPECT_FALSE(a->velMarkedForDeletion());
}

// Hands itself out while it goes, as an entity does that tells its observers.
class Parting : public Object {
public:
    using Object::Object;
    ~Parting() override { Ptr<PtrInterface> const self(this); }
    void zeroReferencesIs(bool zero) override {
        Ptr<PtrInterface> const self(this);
        Object::zeroReferencesIs(zero);
    }
};

TEST_P(PtrTest, ReferencesTakenDuringDestructionDoNotDestroyAgain) {
    Ptr<Object>(new Parting(&log_));
    EXPECT_EQ(log_, (Log{"zero", "destroyed"}));
}

TEST_P(PtrTest, ACopyOfAnObjectHasNoReferencesOrFlags) {
    Ptr<Object> const a(new Object);
    a->hasNotificationActiveIs(true);
    a->velMarkedForDeletionIs(true);
    Object copy(*a);
    EXPECT_EQ(copy.references(), 0u);
    EXPECT_FALSE(copy.hasNotificationActive());
    EXPECT_FALSE(copy.velMarkedForDeletion());
    *a = copy;  // assignment leaves them alone, too
    EXPECT_EQ(a->references(), 1u);
    EXPECT_TRUE(a->hasNotificationActive());
}

TEST_P(PtrTest, MovingLeavesTheCountAlone) {
    Ptr<Derived> a(new Derived(&log_));
    Ptr<Derived> b(std::move(a));
    EXPECT_FALSE(a);
    Ptr<Object> const c(std::move(b));
    EXPECT_FALSE(b);
    EXPECT_EQ(c->references(), 1u);
    EXPECT_EQ(log_, Log());
}

TEST_P(PtrTest, AssignmentReleasesWhatWasHeld) {
    Ptr<Object> a(new Object(&log_));
    a = Ptr<Object>(new Object);
    EXPECT_EQ(log_, (Log{"zero", "destroyed"}));
}

TEST_P(PtrTest, SelfAssignmentKeepsTheObject) {
    Ptr<Object> a(new Object(&log_));
    Ptr<Object>& alias = a;
    a = alias;
    a = std::move(alias);
    a = a.get();
    ASSERT_TRUE(a);
    EXPECT_EQ(a->references(), 1u);
    EXPECT_EQ(log_, Log());
}

TEST_P(PtrTest, ReleaseHandsTheReferenceOver) {
    Ptr<Object> a(new Object(&log_));
    Object* const object = a.release();
    EXPECT_FALSE(a);
    EXPECT_EQ(object->references(), 1u);
    object->deleteRef();
    EXPECT_EQ(log_, (Log{"zero", "destroyed"}));
}

TEST_P(PtrTest, CastsToTheDynamicType) {
    Ptr<Object> const a(new Derived);
    Ptr<Derived> const derived = Vel::ptr_cast<Derived>(a);
    EXPECT_EQ(derived.get(), a.get());
    EXPECT_EQ(a->references(), 2u);
    EXPECT_FALSE(Vel::ptr_cast<Other>(a));
    EXPECT_EQ(a->references(), 2u);
    EXPECT_FALSE(Vel::ptr_cast<Derived>(Ptr<Object>()));
    EXPECT_EQ(Vel::ptr_cast<Derived const>(Ptr<Object const>(a)), derived);
}

TEST_P(PtrTest, CastingATemporaryTakesItsReference) {
    Ptr<Object> a(new Derived(&log_));
    Ptr<Derived> const derived = Vel::ptr_cast<Derived>(std::move(a));
    EXPECT_FALSE(a);
    EXPECT_EQ(derived->references(), 1u);
    EXPECT_EQ(log_, Log());
}

TEST_P(PtrTest, AFailedCastLeavesTheTemporaryItsObject) {
    Ptr<Object> a(new Derived(&log_));
    EXPECT_FALSE(Vel::ptr_cast<Other>(std::move(a)));
    ASSERT_TRUE(a);
    EXPECT_EQ(a->references(), 1u);
}

TEST_P(PtrTest, ComparesByIdentity) {
    Ptr<Derived> const a(new Derived);
    Ptr<Derived> const b(new Derived);
    EXPECT_TRUE(a == a);
    EXPECT_TRUE(a != b);
    EXPECT_TRUE(a == Ptr<Object>(a));
    EXPECT_TRUE(Ptr<Object>(a) == a);
    EXPECT_TRUE(a == a.get());
    EXPECT_TRUE(b.get() != a);
    EXPECT_TRUE(a != nullptr);
    EXPECT_TRUE(Ptr<Object>() == nullptr);
    EXPECT_TRUE(nullptr == Ptr<Object>());
    EXPECT_EQ((std::unordered_set<Ptr<Derived>>{a, b, a}.size()), 2u);
}

TEST_P(PtrTest, ObjectsAreNotObservableByDefault) {
    Ptr<Object> const a(new Object);
    EXPECT_EQ(a->notifieeList(), nullptr);
}

TEST_P(PtrTest, ObjectsCanStandInGivenMemory) {
    alignas(Object) unsigned char memory[sizeof(Object)];
    auto* const object = new (memory) Object(&log_);
    EXPECT_EQ(static_cast<void*>(object), memory);
    object->~Object();
    EXPECT_EQ(log_, Log{"destroyed"});
}

TEST(PtrThreadsTest, AtomicCountsLoseNothing) {
    ThreadSafePointers const rule(true);
    Log log;
    Ptr<Object> a(new Object(&log));
    Vel::String const text("shared between threads");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&a, &text, t] {
            for (int i = 0; i < 20000; ++i) {
                Ptr<Object> const b(a);
                Vel::String const copy(text);
                if (t == 0) b->velMarkedForDeletionIs(i % 2 == 0);
                if (t == 1) b->hasNotificationActiveIs(i % 2 == 0);
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(a->references(), 1u);
    EXPECT_FALSE(a->velMarkedForDeletion());
    EXPECT_FALSE(a->hasNotificationActive());
    EXPECT_EQ(text, "shared between threads");
    a = nullptr;
    EXPECT_EQ(log, (Log{"zero", "destroyed"}));
}

TEST(PtrThreadsTest, TheLastOfManyThreadsDestroysOnce) {
    ThreadSafePointers const rule(true);
    for (int round = 0; round < 200; ++round) {
        Log log;
        Ptr<Object> a(new Object(&log));
        std::vector<std::thread> threads;
        for (int t = 0; t < 3; ++t) threads.emplace_back([b = a]() mutable { b = nullptr; });
        a = nullptr;
        for (auto& thread : threads) thread.join();
        ASSERT_EQ(log, (Log{"zero", "destroyed"}));
    }
}

TEST(PtrThreadsTest, ThreadsAgreeOnTheDeduplicatedCopy) {
    ThreadSafePointers const rule(true);
    std::vector<Vel::String> results(4);
    std::vector<std::thread> threads;
    for (auto& result : results)
        threads.emplace_back([&result] {
            for (int i = 0; i < 2000; ++i) Vel::format("PtrThreadsTest %d", i % 10).dedup();
            result = "PtrThreadsTest agreed";
            result.dedup();
        });
    for (auto& thread : threads) thread.join();
    for (auto const& result : results) EXPECT_TRUE(result.sharesStorageWith(results[0]));
}

std::vector<std::string> trackedTypes() {
    std::vector<std::string> names;
    Vel::AllocTrackTypeInfo::visitAll([&](Vel::AllocTrackTypeInfo const& info) { names.push_back(info.typeName()); });
    std::erase_if(names, [](std::string const& name) { return !name.starts_with("AllocTrackTest::"); });
    return names;
}

TEST(AllocTrackTest, CountsObjectsAndBytes) {
    static constinit Vel::AllocTrackTypeInfo info("AllocTrackTest::Counted");
    info._trackAllocation(24, 8);
    info._trackAllocation(24, 8);
    info.trackArrayAllocation(10, 4);
    EXPECT_EQ(info.live(), 12u);
    EXPECT_EQ(info.liveBytes(), 88u);
    EXPECT_EQ(info.allocations(), 12u);
    info.trackDeallocation(24, 8);
    info.trackArrayDeallocation(10, 4);
    EXPECT_EQ(info.live(), 1u);
    EXPECT_EQ(info.liveBytes(), 24u);
    EXPECT_EQ(info.allocations(), 12u);
}

// Threads that share no object need no atomic counts of references, but share the statistics of a type.
TEST(AllocTrackTest, CountsOfSeveralThreadsAreExact) {
    static constinit Vel::AllocTrackTypeInfo info("SharedByThreads");
    ASSERT_FALSE(Vel::VFPtrInterface::threadSafePointers_);
    info._trackAllocation(8, 8);
    std::vector<std::thread> threads;
    std::atomic<int> waiting = 4;  // all begin at once, so that their counts meet
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&waiting] {
            --waiting;
            while (waiting != 0) std::this_thread::yield();
            for (int i = 0; i < 1000000; ++i) {
                info._trackAllocation(8, 8);
                if (i % 2 == 0) info.trackDeallocation(8, 8);
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(info.allocations(), 4000001u);
    EXPECT_EQ(info.live(), 2000001u);
    EXPECT_EQ(info.liveBytes(), 16000008u);
}

TEST(AllocTrackTest, ListsTypesOnceInOrderOfFirstAllocation) {
    static constinit Vel::AllocTrackTypeInfo first("AllocTrackTest::First");
    static constinit Vel::AllocTrackTypeInfo second("AllocTrackTest::Second");
    static constinit Vel::AllocTrackTypeInfo never("AllocTrackTest::Never");
    auto expected = trackedTypes();
    second._trackAllocation(1, 1);
    first._trackAllocation(1, 1);
    second._trackAllocation(1, 1);
    expected.insert(expected.end(), {"AllocTrackTest::Second", "AllocTrackTest::First"});
    EXPECT_EQ(trackedTypes(), expected);
    EXPECT_EQ(never.live(), 0u);
}

TEST(AllocTrackTest, AVisitorMayAllocateTrackedObjects) {
    static constinit Vel::AllocTrackTypeInfo seen("AllocTrackTest::Seen");
    static constinit Vel::AllocTrackTypeInfo added("AllocTrackTest::Added");
    seen._trackAllocation(1, 1);
    Vel::AllocTrackTypeInfo::visitAll([](auto const& info) {
        if (&info == &seen) added._trackAllocation(1, 1);
    });
    EXPECT_EQ(added.live(), 1u);
    EXPECT_EQ(trackedTypes().back(), "AllocTrackTest::Added");
}

}  // namespace
