#include "Vel/entity/NotifieeList.h"

#include "test/Vel/describe/Fixtures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Fixture::Leaf;
using Vel::AttributeId;
using Vel::Notifiee;
using Vel::NotifieeKey;
using Vel::notifieeOf;
using Vel::Ptr;
using Vel::String;
using Vel::U32;

constexpr AttributeId sizeId = 258;

// Observers that write their names into one log, and do something on top when told.
class NotifieeListTest : public testing::Test {
protected:
    class Observer : public Notifiee {
    public:
        Observer(std::string& log, char name) : log_(log), name_(name) {}
        void handleAttribute(AttributeId) override {
            log_ += name_;
            if (auto const action = act) action();
        }
        std::function<void()> act;

    private:
        std::string& log_;
        char name_;
    };

    std::unique_ptr<Observer> observer(char name) {
        auto result = std::make_unique<Observer>(log, name);
        result->notifierIs(leaf.get());
        return result;
    }
    // What is written when the leaf changes.
    std::string told() {
        log.clear();
        leaf->sizeIs(leaf->size() + 1);
        return log;
    }

    std::string log;
    Ptr<Leaf> leaf = Leaf::newEntity("leaf");
};

TEST_F(NotifieeListTest, ListIsOnePointerWide) { EXPECT_EQ(sizeof(Vel::NotifieeList), sizeof(void*)); }

TEST_F(NotifieeListTest, ObserversAreToldInTheOrderInWhichTheyCame) {
    auto const a = observer('a');
    auto const b = observer('b');
    auto const c = observer('c');
    EXPECT_EQ(told(), "abc");
    EXPECT_EQ(leaf->notifieeList()->size(), 3u);
}

TEST_F(NotifieeListTest, ObserverThatMovesToTheSameEntityAgainGoesToTheEnd) {
    auto const a = observer('a');
    auto const b = observer('b');
    a->notifierIs(leaf.get());
    EXPECT_EQ(told(), "ba");
}

TEST_F(NotifieeListTest, ObserverObservesOneEntityAtATime) {
    auto const a = observer('a');
    auto const other = Leaf::newEntity("other");
    a->notifierIs(other.get());
    EXPECT_EQ(told(), "");
    other->sizeIs(1);
    EXPECT_EQ(log, "a");
    a->notifierIs(nullptr);
    EXPECT_FALSE(a->hasNotifier());
    other->sizeIs(2);
    EXPECT_EQ(log, "a");
}

TEST_F(NotifieeListTest, WithdrawnObserverIsToldNothing) {
    auto const a = observer('a');
    auto b = observer('b');
    auto const c = observer('c');
    b.reset();
    EXPECT_EQ(told(), "ac");
    EXPECT_EQ(leaf->notifieeList()->size(), 2u);
}

TEST_F(NotifieeListTest, ObserversThatComeDuringAVisitAreToldFromTheNextOn) {
    auto const a = observer('a');
    std::vector<std::unique_ptr<Observer>> added;
    a->act = [&] {
        for (char name = 'p'; name < 'z' && added.size() < 10; ++name) added.push_back(observer(name));
    };
    EXPECT_EQ(told(), "a");
    EXPECT_EQ(told(), "apqrstuvwxy");
}

TEST_F(NotifieeListTest, ObserverMayDestroyItselfWhenTold) {
    auto const a = observer('a');
    auto b = observer('b');
    auto const c = observer('c');
    b->act = [&] { b.reset(); };
    EXPECT_EQ(told(), "abc");
    EXPECT_EQ(told(), "ac");
}

TEST_F(NotifieeListTest, EarlierObserverMayBeDestroyedByALaterOne) {
    auto a = observer('a');
    auto const b = observer('b');
    auto const c = observer('c');
    b->act = [&] { a.reset(); };
    EXPECT_EQ(told(), "abc");
    EXPECT_EQ(told(), "bc");
}

TEST_F(NotifieeListTest, LaterObserverThatIsDestroyedIsNotTold) {
    auto const a = observer('a');
    auto b = observer('b');
    auto const c = observer('c');
    a->act = [&] { b.reset(); };
    EXPECT_EQ(told(), "ac");
}

TEST_F(NotifieeListTest, ObserverThatRegistersAgainDuringAVisitIsToldFromTheNextOn) {
    auto const a = observer('a');
    auto const b = observer('b');
    a->act = [&] { b->notifierIs(leaf.get()); };
    EXPECT_EQ(told(), "a");
    a->act = nullptr;
    EXPECT_EQ(told(), "ab");
}

// Places in the list close up when observers have gone; each that is left must still find its own.
TEST_F(NotifieeListTest, ObserversLeftAfterOthersWentCanGoToo) {
    auto a = observer('a');
    auto b = observer('b');
    auto c = observer('c');
    auto d = observer('d');
    c->act = [&] { a.reset(), b.reset(), d.reset(); };
    EXPECT_EQ(told(), "abc");
    auto const e = observer('e');
    c.reset();
    EXPECT_EQ(told(), "e");
    EXPECT_EQ(leaf->notifieeList()->size(), 1u);
}

TEST_F(NotifieeListTest, EntityMayBeReleasedWhenObserversAreTold) {
    auto const a = observer('a');
    auto const b = observer('b');
    a->act = [&] { leaf = nullptr; };
    Leaf* const raw = leaf.get();
    raw->sizeIs(1);
    EXPECT_EQ(log, "a");
    EXPECT_FALSE(a->hasNotifier());
    EXPECT_FALSE(b->hasNotifier());
}

// --- a single observer, which is called without a visit ---

TEST_F(NotifieeListTest, OnlyObserverMayReleaseTheEntity) {
    auto const a = observer('a');
    a->act = [&] { leaf = nullptr; };
    Leaf* const raw = leaf.get();
    raw->sizeIs(1);
    EXPECT_EQ(log, "a");
    EXPECT_FALSE(a->hasNotifier());
}

TEST_F(NotifieeListTest, OnlyObserverMayBeReplacedWhenTold) {
    auto a = observer('a');
    std::unique_ptr<Observer> b;
    a->act = [&] {
        b = observer('b');
        a.reset();
    };
    EXPECT_EQ(told(), "a");
    EXPECT_EQ(told(), "b");
    EXPECT_EQ(leaf->notifieeList()->size(), 1u);
}

TEST_F(NotifieeListTest, OnlyObserverMayGoAndComeAgainWhenTold) {
    auto const a = observer('a');
    a->act = [&] {
        a->notifierIs(nullptr);
        a->notifierIs(leaf.get());
    };
    EXPECT_EQ(told(), "a");
    EXPECT_EQ(told(), "a");
    a->act = [&] { a->notifierIs(nullptr); };
    EXPECT_EQ(told(), "a");
    EXPECT_EQ(told(), "");
}

TEST_F(NotifieeListTest, ChangeFromWithinTheOnlyObserverReachesThoseThatCame) {
    auto const a = observer('a');
    std::unique_ptr<Observer> b;
    a->act = [&] {
        if (b) return;
        b = observer('b');
        leaf->sizeIs(leaf->size() + 1);
    };
    EXPECT_EQ(told(), "aab");
}

TEST_F(NotifieeListTest, ObserverThatIsLeftAloneIsTold) {
    auto a = observer('a');
    auto b = observer('b');
    auto const c = observer('c');
    EXPECT_EQ(told(), "abc");
    a.reset();
    b.reset();  // the places close up
    EXPECT_EQ(told(), "c");
    auto const d = observer('d');
    EXPECT_EQ(told(), "cd");
}

TEST_F(NotifieeListTest, DestroyedEntityLetsItsObserversGo) {
    auto const a = observer('a');
    EXPECT_TRUE(a->hasNotifier());
    leaf = nullptr;
    EXPECT_FALSE(a->hasNotifier());
}

TEST_F(NotifieeListTest, EmptiedListCanBeFilledAgainDuringTheVisit) {
    auto const a = observer('a');
    auto const b = observer('b');
    a->act = [&] {
        leaf->notifieeList()->deleteAll();
        b->notifierIs(leaf.get());
        a->act = nullptr;
    };
    EXPECT_EQ(told(), "a");
    EXPECT_EQ(told(), "b");
}

TEST_F(NotifieeListTest, ChangeFromWithinAVisitIsToldToAllOnceMore) {
    auto const a = observer('a');
    auto const b = observer('b');
    a->act = [&] {
        if (leaf->size() < 3) leaf->sizeIs(leaf->size() + 1);
    };
    EXPECT_EQ(told(), "aaabbb");
}

TEST_F(NotifieeListTest, ObserverThatGoesInAnInnerVisitIsNotToldByTheOuterOne) {
    auto const a = observer('a');
    auto b = observer('b');
    auto const c = observer('c');
    a->act = [&] {
        a->act = nullptr;
        leaf->sizeIs(100);
    };
    b->act = [&] { b.reset(); };
    EXPECT_EQ(told(), "aabcc");
}

TEST_F(NotifieeListTest, ExceptionPassesToWhoeverChangedTheAttribute) {
    auto const a = observer('a');
    auto const b = observer('b');
    a->act = [] { throw std::runtime_error("no"); };
    EXPECT_THROW(leaf->sizeIs(5), std::runtime_error);
    EXPECT_EQ(log, "a");
    EXPECT_EQ(leaf->size(), 5u);
    a->act = nullptr;
    EXPECT_EQ(told(), "ab");
}

TEST_F(NotifieeListTest, HolesCloseAfterAnException) {
    auto a = observer('a');
    auto b = observer('b');
    auto const c = observer('c');
    b->act = [&] {
        a.reset();
        b.reset();
        throw std::runtime_error("no");
    };
    EXPECT_THROW(leaf->sizeIs(5), std::runtime_error);
    EXPECT_EQ(told(), "c");
    EXPECT_EQ(leaf->notifieeList()->size(), 1u);
}

// Tells one attribute and one key, as a collection does.
TEST_F(NotifieeListTest, KeyReachesTheObserverWithItsType) {
    std::string seen;
    auto const observer = notifieeOf(*leaf, [&](AttributeId attribute, NotifieeKey const* key) {
        seen += std::to_string(attribute) + (key ? "=" + key->as<String>().stdString() : "") + " ";
        if (key) {
            EXPECT_STREQ(key->type().name(), "Vel::String");
        }
    });
    leaf->notifieeList()->visit(7);
    leaf->notifieeList()->visit(8, String("k"));
    EXPECT_EQ(seen, "7 8=k ");
}

TEST_F(NotifieeListTest, LambdaWithoutAKeyIsToldOfMembersToo) {
    std::vector<AttributeId> seen;
    auto const observer = notifieeOf(*leaf, [&](AttributeId attribute) { seen.push_back(attribute); });
    leaf->notifieeList()->visit(7);
    leaf->notifieeList()->visit(8, String("k"));
    EXPECT_EQ(seen, (std::vector<AttributeId>{7, 8}));
}

TEST_F(NotifieeListTest, ObserverThatIgnoresKeysIsToldTheAttribute) {
    auto const a = observer('a');
    leaf->notifieeList()->visit(8, U32(3));
    EXPECT_EQ(log, "a");
}

TEST_F(NotifieeListTest, LambdaLivesAsLongAsItsResult) {
    int told = 0;
    {
        auto const observer = notifieeOf(*leaf, [&](AttributeId attribute) { told += attribute == sizeId; });
        leaf->sizeIs(1);
    }
    leaf->sizeIs(2);
    EXPECT_EQ(told, 1);
}

// Random registrations, withdrawals and changes, also from within visits, against a list of names.
// The model: a visit tells those of the names present at its beginning that are still present, and have not
// registered anew, when their turn comes.
class Crowd {
public:
    explicit Crowd(unsigned seed) : random_(seed) { members_.resize(12); }

    void run() {
        for (int i = 0; i < 400; ++i) act();
        members_.clear();
    }

private:
    struct Member final : Notifiee {
        Member(Crowd& c, unsigned r) : crowd(c), registration(r) {}
        void handleAttribute(AttributeId) override { crowd.handle(registration); }
        Crowd& crowd;
        unsigned registration;
    };

    void act() {
        std::size_t const place = random_() % members_.size();
        switch (random_() % 3) {
        case 0:  // comes, or goes and comes
            if (members_[place]) drop(place);
            members_[place] = std::make_unique<Member>(*this, ++registrations_);
            members_[place]->notifierIs(leaf_.get());
            model_.push_back(registrations_);
            break;
        case 1:
            drop(place);
            break;
        default:
            if (depth_ < 3) change();
        }
        ASSERT_EQ(leaf_->notifieeList()->size(), model_.size());
    }
    void drop(std::size_t place) {
        if (!members_[place]) return;
        std::erase(model_, members_[place]->registration);
        members_[place].reset();
    }
    void change() {
        ++depth_;
        expected_.push_back(model_);
        leaf_->sizeIs(leaf_->size() + 1);
        skipGone();
        EXPECT_TRUE(expected_.back().empty()) << "an observer was not told";
        expected_.pop_back();
        --depth_;
    }
    void skipGone() {
        auto& expected = expected_.back();
        while (!expected.empty() && std::find(model_.begin(), model_.end(), expected.front()) == model_.end())
            expected.erase(expected.begin());
    }
    void handle(unsigned registration) {
        skipGone();
        ASSERT_FALSE(expected_.back().empty());
        ASSERT_EQ(registration, expected_.back().front());
        expected_.back().erase(expected_.back().begin());
        if (random_() % 3 == 0) act();
    }

    std::mt19937 random_;
    Ptr<Leaf> leaf_ = Leaf::newEntity("leaf");
    std::vector<std::unique_ptr<Member>> members_;
    std::vector<unsigned> model_;
    std::vector<std::vector<unsigned>> expected_;
    unsigned registrations_ = 0;
    int depth_ = 0;
};

TEST(NotifieeListModelTest, RandomOperationsAgreeWithAPlainList) {
    for (unsigned seed = 0; seed < 50; ++seed) {
        SCOPED_TRACE(seed);
        Crowd(seed).run();
        if (testing::Test::HasFatalFailure()) return;
    }
}

}  // namespace
