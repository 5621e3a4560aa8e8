#include "Vel/entity/Dir.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "test/Vel/describe/Fixtures.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

using Fixture::Leaf;
using Fixture::Nameless;
using Vel::AttributeId;
using Vel::AttributeOp;
using Vel::Dir;
using Vel::Entity;
using Vel::NotifieeKey;
using Vel::notifieeOf;
using Vel::Ptr;
using Vel::String;
using Vel::typeOf;
using Vel::U32;
using Vel::VelType;

class DirTest : public testing::Test {
protected:
    std::string names() const {
        std::string text;
        dir->visitEntries([&](Ptr<Entity> const& entity) { text += entity->name().stdString() + " "; });
        return text;
    }
    Ptr<Dir> dir = Dir::newEntity("dir");
};

// What `f` throws as an E, or "".
template <class E, class F> std::string thrown(F f) {
    try {
        f();
    } catch (E const& error) {
        return error.what();
    }
    return "";
}

// --- creating ---

TEST_F(DirTest, CreatesAnEntityOfTheNamedType) {
    Ptr<Entity> const leaf = dir->createEntity("Fixture::Leaf", "leaf");
    EXPECT_STREQ(leaf->fwkType().name(), "Fixture::Leaf");
    EXPECT_EQ(leaf->name(), "leaf");
    EXPECT_EQ(leaf->parent(), dir.get());
    EXPECT_EQ(dir->entry("leaf"), leaf);
    EXPECT_TRUE(leaf->hasNotificationActive());
    EXPECT_EQ(Vel::ptr_cast<Leaf>(leaf)->parentChanges, 1);
}

TEST_F(DirTest, CreateReturnsTheEntryOfThatNameWhateverItsType) {
    Ptr<Entity> const leaf = dir->createEntity("Fixture::Leaf", "leaf");
    EXPECT_EQ(dir->createEntity("Fixture::Leaf", "leaf"), leaf);
    EXPECT_EQ(dir->createEntity("Vel::Dir", "leaf"), leaf);
    EXPECT_EQ(dir->createEntity("No::Such", "leaf"), leaf);
    EXPECT_EQ(dir->createEntity(VelType(), "leaf"), leaf);
    EXPECT_EQ(dir->entries(), 1u);
}

TEST_F(DirTest, CreateNeedsATypeThatAModuleDefines) {
    EXPECT_EQ(thrown<Vel::TypeException>([&] { dir->createEntity("No::Such", "x"); }),
        "no module defines the type 'No::Such'");
    EXPECT_EQ(thrown<Vel::TypeException>([&] { dir->createEntity(VelType(), "x"); }),
        "the operation does not apply to a value without a type");
}

TEST_F(DirTest, CreateNeedsAnEntityType) {
    EXPECT_EQ(thrown<Vel::TypeException>([&] { dir->createEntity("Fixture::Tally", "x"); }),
        "the operation does not apply to a value of type Fixture::Tally");
    EXPECT_THROW(dir->createEntity("Vel::Entity", "x"), Vel::TypeException);
    EXPECT_THROW(dir->createEntity("Fixture::Demanding", "x"), Vel::TypeException);
    EXPECT_EQ(dir->entries(), 0u);
}

TEST_F(DirTest, CreateNeedsAName) {
    EXPECT_EQ(thrown<Vel::RangeException>([&] { dir->createEntity("Fixture::Leaf", ""); }),
        "'' cannot be an entity's name: it is empty or holds a \"/\"");
    EXPECT_EQ(thrown<Vel::RangeException>([&] { dir->createEntity("Fixture::Leaf", "a/b"); }),
        "'a/b' cannot be an entity's name: it is empty or holds a \"/\"");
    EXPECT_THROW(dir->createEntity("Fixture::Nameless", "x"), Vel::RangeException);
    EXPECT_EQ(dir->entries(), 0u);
}

TEST_F(DirTest, CreateRefusesArgumentsThatTheTypeDoesNotTake) {
    int argument = 0;
    void const* const arguments[] = {&argument};
    EXPECT_EQ(thrown<Vel::NewEntityArgsException>([&] { dir->createEntity("Fixture::Leaf", "x", arguments); }),
        "an entity of type Fixture::Leaf takes no constructor arguments but its name");
    EXPECT_EQ(dir->entries(), 0u);
}

// --- adding and removing ---

TEST_F(DirTest, EntryIsAddsUnderTheEntitysName) {
    auto const leaf = Leaf::newEntity("leaf");
    dir->entryIs(leaf);
    EXPECT_EQ(dir->entry("leaf"), leaf);
    EXPECT_TRUE(dir->entryExists("leaf"));
    EXPECT_EQ(leaf->parent(), dir.get());
}

TEST_F(DirTest, AddingAnEntryAgainChangesNothing) {
    auto const leaf = Leaf::newEntity("leaf");
    dir->entryIs(leaf);
    U32 const changes = dir->entryChangeCounter();
    dir->entryIs(leaf);
    EXPECT_EQ(dir->entryChangeCounter(), changes);
    EXPECT_EQ(leaf->parentChanges, 1);
}

TEST_F(DirTest, NameInUseIsRefused) {
    auto const first = Leaf::newEntity("it's");
    auto const second = Leaf::newEntity("it's");
    dir->entryIs(first);
    EXPECT_EQ(thrown<Vel::NameInUseException>([&] { dir->entryIs(second); }), "the name 'it\\'s' is in use in dir");
    EXPECT_EQ(dir->entry("it's"), first);
    EXPECT_EQ(second->parent(), nullptr);
}

TEST_F(DirTest, EntryIsRefusesNullAndBadNames) {
    EXPECT_EQ(thrown<Vel::MutatorArgNullPointerException>([&] { dir->entryIs(nullptr); }),
        "Vel::Dir.entry (attribute 258) takes no null pointer");
    EXPECT_THROW(dir->entryIs(Nameless::newEntity()), Vel::RangeException);
    EXPECT_THROW(dir->entryIs(Leaf::newEntity("a/b")), Vel::RangeException);
    EXPECT_EQ(dir->entries(), 0u);
}

TEST_F(DirTest, RemovedEntryIsReturnedAndHasNoParent) {
    auto const leaf = Leaf::newEntity("leaf");
    dir->entryIs(leaf);
    EXPECT_EQ(dir->entryDel("leaf"), leaf);
    EXPECT_EQ(leaf->parent(), nullptr);
    EXPECT_EQ(leaf->parentChanges, 2);
    EXPECT_EQ(dir->entryDel("leaf"), nullptr);
    EXPECT_FALSE(dir->entryExists("leaf"));
}

TEST_F(DirTest, EntriesLoseTheirParentWithTheDirectory) {
    auto const leaf = Leaf::newEntity("leaf");
    dir->entryIs(leaf);
    dir = nullptr;
    EXPECT_EQ(leaf->parent(), nullptr);
    EXPECT_EQ(leaf->references(), 1u);
}

TEST_F(DirTest, DirectoryHoldsItsEntries) {
    auto const& live = *typeOf<Leaf>().glue().allocTrack;
    auto const before = live.live();
    dir->createEntity("Fixture::Leaf", "a");
    EXPECT_EQ(live.live(), before + 1);
    dir->entryDelAll();
    EXPECT_EQ(live.live(), before);
}

TEST_F(DirTest, ChangeCounterCountsAdditionsAndRemovals) {
    U32 const before = dir->entryChangeCounter();
    dir->createEntity("Fixture::Leaf", "a");
    dir->createEntity("Fixture::Leaf", "a");
    dir->entryDel("a");
    dir->entryDel("a");
    EXPECT_EQ(dir->entryChangeCounter(), before + 2);
}

// --- visiting and observing ---

TEST_F(DirTest, EntriesAreVisitedInOrderOfTheirNames) {
    for (char const* const name : {"b", "a", "B", "ab", "10", "9"}) dir->createEntity("Fixture::Leaf", name);
    EXPECT_EQ(names(), "10 9 B a ab b ");
}

TEST_F(DirTest, EntriesMayComeAndGoDuringAVisit) {
    for (char const* const name : {"a", "b", "c"}) dir->createEntity("Fixture::Leaf", name);
    std::string visited;
    dir->visitEntries([&](Ptr<Entity> const& entity) {
        visited += entity->name().stdString();
        dir->entryDelAll();
        dir->createEntity("Fixture::Leaf", entity->name().stdString() + "2");
    });
    EXPECT_EQ(visited, "abc");
    EXPECT_EQ(names(), "c2 ");
}

TEST_F(DirTest, ObserversAreToldTheNameOfWhatCameOrWent) {
    std::string seen;
    auto const observer = notifieeOf(*dir, [&](AttributeId id, NotifieeKey const* key) {
        String const name = key->as<String>();
        seen += std::to_string(id) + (dir->entryExists(name) ? "+" : "-") + name.stdString() + " ";
    });
    dir->createEntity("Fixture::Leaf", "a");
    dir->createEntity("Fixture::Leaf", "b");
    dir->entryDel("a");
    dir->entryDel("x");
    EXPECT_EQ(seen, "258+a 258+b 258-a ");
}

TEST_F(DirTest, ParentIsSetWhenObserversAreTold) {
    Entity* parent = nullptr;
    auto const observer = notifieeOf(*dir, [&](AttributeId) { parent = dir->entry("a")->parent(); });
    dir->createEntity("Fixture::Leaf", "a");
    EXPECT_EQ(parent, dir.get());
}

TEST_F(DirTest, NotificationIsSilentWhenSwitchedOff) {
    int told = 0;
    auto const observer = notifieeOf(*dir, [&](AttributeId) { ++told; });
    dir->hasNotificationActiveIs(false);
    dir->createEntity("Fixture::Leaf", "a");
    EXPECT_EQ(told, 0);
}

// --- reflection ---

TEST_F(DirTest, EntriesAreReachedByReflection) {
    auto const entry = typeOf<Dir>().attribute("entry").value();
    auto const op = [&](void* result, AttributeOp code, void const* key = nullptr) {
        return dir->attributeOp(result, entry, code, key);
    };
    auto const leaf = dir->createEntity("Fixture::Leaf", "leaf");
    String const name("leaf");
    U32 number = 0;
    bool exists = false;
    EXPECT_EQ(op(&number, AttributeOp::count), 0);
    EXPECT_EQ(number, 1u);
    EXPECT_EQ(op(&number, AttributeOp::changeCounter), 0);
    EXPECT_EQ(number, dir->entryChangeCounter());
    EXPECT_EQ(op(&exists, AttributeOp::exists, &name), 0);
    EXPECT_TRUE(exists);
    Ptr<Entity> found;
    EXPECT_EQ(op(&found, AttributeOp::get, &name), 0);
    EXPECT_EQ(found, leaf);
    EXPECT_EQ(op(nullptr, AttributeOp::del, &name), 0);
    EXPECT_EQ(dir->entries(), 0u);
    EXPECT_EQ(dir->attributeOp(nullptr, entry, AttributeOp::set, &name, &leaf), 0);
    EXPECT_EQ(dir->entry("leaf"), leaf);
}

// --- the root ---

TEST(GlobalDirTest, IsOneDirectoryWithoutParentOrName) {
    EXPECT_EQ(Vel::globalDir(), Vel::globalDir());
    EXPECT_EQ(Vel::globalDir()->path(), "/");
    EXPECT_EQ(Vel::globalDir()->parent(), nullptr);
    EXPECT_TRUE(Vel::globalDir()->hasNotificationActive());
}

// --- against a model ---

TEST_F(DirTest, RandomOperationsAgreeWithAMap) {
    std::mt19937 random(1);
    std::map<std::string, Ptr<Entity>> model;
    for (int i = 0; i < 2000; ++i) {
        std::string const name(1, static_cast<char>('a' + random() % 8));
        switch (random() % 3) {
        case 0: {
            Ptr<Entity> const entity = dir->createEntity("Fixture::Leaf", name);
            EXPECT_EQ(model.emplace(name, entity).first->second, entity);
            break;
        }
        case 1: {
            auto const leaf = Leaf::newEntity(name);
            if (model.contains(name)) {
                EXPECT_THROW(dir->entryIs(leaf), Vel::NameInUseException);
            } else {
                dir->entryIs(leaf);
                model.emplace(name, leaf);
            }
            break;
        }
        default: {
            auto const found = model.find(name);
            EXPECT_EQ(dir->entryDel(name), found == model.end() ? nullptr : found->second);
            if (found != model.end()) model.erase(found);
        }
        }
        ASSERT_EQ(dir->entries(), model.size());
        std::string expected;
        for (auto const& [key, entity] : model) expected += key + " ";
        ASSERT_EQ(names(), expected);
    }
}

// --- large directories, which have an index ---

class DirIndexTest : public DirTest {
protected:
    static std::string nameOf(unsigned i) { return "entry" + std::string(i % 30, '-') + std::to_string(i); }

    // Adds the entry, or removes it if it is there.
    void turn(unsigned i) {
        if (auto const found = model.find(nameOf(i)); found != model.end()) {
            EXPECT_EQ(dir->entryDel(nameOf(i)), found->second);
            model.erase(found);
        } else {
            model[nameOf(i)] = dir->createEntity("Fixture::Leaf", nameOf(i));
        }
    }
    void compare(unsigned all) const {
        ASSERT_EQ(dir->entries(), model.size());
        std::string expected;
        for (auto const& [name, entity] : model) expected += name + " ";
        EXPECT_EQ(names(), expected);
        for (unsigned i = 0; i < all; ++i) {
            auto const found = model.find(nameOf(i));
            ASSERT_EQ(dir->entry(nameOf(i)), found == model.end() ? nullptr : found->second) << nameOf(i);
            ASSERT_EQ(dir->entryExists(nameOf(i)), found != model.end());
        }
    }

    std::map<std::string, Ptr<Entity>> model;
};

TEST_F(DirIndexTest, EveryEntryIsFoundWhileADirectoryGrowsAndShrinks) {
    constexpr unsigned all = 300;
    for (unsigned i = 0; i < all; ++i) {
        turn(i * 7 % all);
        compare(all);
    }
    for (unsigned i = 0; i < all; ++i) {
        turn(i * 11 % all);
        compare(all);
    }
    EXPECT_EQ(dir->entries(), 0u);
}

TEST_F(DirIndexTest, RandomEntriesComeAndGo) {
    std::mt19937 random(2);
    for (unsigned const all : {12u, 30u, 500u}) {
        for (int i = 0; i < 3000; ++i) {
            turn(static_cast<unsigned>(random() % all));
            if (i % 100 == 0) compare(all);
        }
        compare(all);
    }
}

TEST_F(DirIndexTest, EntryThatTakesAnothersPlaceIsFound) {
    for (unsigned i = 0; i < 100; ++i) dir->createEntity("Fixture::Leaf", nameOf(i));
    auto const before = dir->entryDel(nameOf(50));
    EXPECT_EQ(dir->entry(nameOf(50)), nullptr);
    auto const leaf = Leaf::newEntity(nameOf(50));
    dir->entryIs(leaf);
    EXPECT_EQ(dir->entry(nameOf(50)), leaf);
    EXPECT_THROW(dir->entryIs(Leaf::newEntity(nameOf(50))), Vel::NameInUseException);
    EXPECT_EQ(dir->entry(nameOf(50)), leaf);
}

TEST_F(DirIndexTest, NamesThatDifferInOneByteAreDifferent) {
    std::string const longName(40, 'x');
    for (unsigned i = 0; i < longName.size(); ++i) {
        for (std::size_t const length : {std::size_t(i + 1), longName.size()}) {
            std::string name = longName.substr(0, length);
            name[i] = 'y';
            dir->createEntity("Fixture::Leaf", name);
        }
    }
    EXPECT_EQ(dir->entries(), 79u);
    for (std::size_t length = 1; length <= longName.size(); ++length)
        EXPECT_EQ(dir->entry(longName.substr(0, length)), nullptr);
    EXPECT_EQ(dir->entry("y")->name(), "y");
    EXPECT_EQ(dir->entry(""), nullptr);
}

TEST_F(DirIndexTest, ObserversFindTheEntryThatCame) {
    unsigned told = 0;
    auto const observer = notifieeOf(*dir, [&](AttributeId, NotifieeKey const* key) {
        String const name = key->as<String>();
        bool const came = model.find(name.stdString()) == model.end();
        EXPECT_EQ(dir->entry(name) != nullptr, came);
        ++told;
    });
    for (unsigned i = 0; i < 60; ++i) turn(i % 40);
    EXPECT_EQ(told, 60u);
}

TEST(DirPlaceTest, AnEntityHasOnePlace) {
    auto const first = Vel::Dir::newEntity("first");
    auto const second = Vel::Dir::newEntity("second");
    auto const leaf = Leaf::newEntity("leaf");
    first->entryIs(leaf);
    try {
        second->entryIs(leaf);
        FAIL() << "the leaf is in two directories";
    } catch (Vel::RangeException const& error) {
        EXPECT_EQ(error.text(), "/leaf is in use in another place than second");
    }
    EXPECT_EQ(second->entries(), 0u);
    first->entryDel("leaf");
    second->entryIs(leaf);
    EXPECT_EQ(leaf->parent(), second.get());
}

TEST(DirPlaceTest, NoDirectoryIsWithinItself) {
    auto const outer = Vel::Dir::newEntity("outer");
    auto const inner = Vel::Dir::newEntity("inner");
    outer->entryIs(inner);
    EXPECT_THROW(inner->entryIs(outer), Vel::RangeException);
    EXPECT_THROW(outer->entryIs(outer), Vel::RangeException);
    EXPECT_EQ(outer->entries(), 1u);
}

}  // namespace
