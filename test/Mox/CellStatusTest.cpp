#include "CellTest.h"
#include "ValueTest.h"
#include "VirtualSlot.h"

#include "Mox/Seqno.h"
#include "Mox/internal/CellDir.h"

#include "Vel/describe/Module.h"

#include <atomic>
#include <thread>

namespace {

using namespace std::string_literals;
using Vel::AttributeOp;
using Ids = std::vector<Vel::AttributeId>;

class CellStatusTest : public CellTest {
protected:
    // The value of an attribute by reflection.
    template <class T> T get(Vel::AttributeId id) {
        T result{};
        EXPECT_EQ(entity->attributeOp(&result, attributeOfId(id), AttributeOp::get), 0);
        return result;
    }
    template <class T> int set(Vel::AttributeId id, T const& value) {
        return entity->attributeOp(nullptr, attributeOfId(id), AttributeOp::set, nullptr, &value);
    }
    static Vel::VelAttr attributeOfId(Vel::AttributeId id) {
        return Vel::typeOf<Cell::Status>().attributeOfId(id).value();
    }

    Vel::Ptr<Cell::Status> const entity = Cell::statusFactory("mine");
};

// --- construction ---

TEST_F(CellStatusTest, NewStatusKnowsNothing) {
    EXPECT_EQ(entity->name(), "mine");
    EXPECT_FALSE(entity->electionMgrSupportedInitialized());
    EXPECT_FALSE(entity->cpuBmcModeInitialized());
    world.environment = {{"CELLID", "0"}, {"CELLTYPE", ""}, {"PRODUCT", ""}};
    EXPECT_EQ(entity->cellId(), 0);
    EXPECT_EQ(entity->cellType(), "");
    EXPECT_EQ(entity->product(), "");
}

TEST_F(CellStatusTest, FactoriesSwitchNotificationOnAndTheConstructorDoesNot) {
    EXPECT_TRUE(entity->hasNotificationActive());
    EXPECT_TRUE(Cell::Status::StatusIs("x")->hasNotificationActive());
    EXPECT_EQ(Cell::Status::StatusIs("x")->name(), "x");
    Vel::Ptr<Cell::Status> const plain(new Cell::Status("plain"));
    EXPECT_FALSE(plain->hasNotificationActive());
    observe(*plain);
    plain->cellIdIs(5);
    EXPECT_EQ(notified, Ids());
}

TEST_F(CellStatusTest, AllocationsAreTrackedByType) {
    auto const& statistics = *Vel::typeOf<Cell::Status>().glue().allocTrack;
    EXPECT_STREQ(statistics.typeName(), "Cell::Status");
    auto const live = statistics.live();
    auto const bytes = statistics.liveBytes();
    auto another = Cell::statusFactory("x");
    EXPECT_EQ(statistics.live(), live + 1);
    EXPECT_EQ(statistics.liveBytes(), bytes + sizeof(Cell::Status));
    another = nullptr;
    EXPECT_EQ(statistics.live(), live);
    EXPECT_EQ(statistics.liveBytes(), bytes);
}

TEST_F(CellStatusTest, DestructionWithdrawsTheObservers) {
    auto status = Cell::statusFactory("x");
    auto const notifiee = Vel::notifieeOf(*status, [](Vel::AttributeId) {});
    EXPECT_TRUE(notifiee->hasNotifier());
    status = nullptr;
    EXPECT_FALSE(notifiee->hasNotifier());
}

TEST_F(CellStatusTest, DirectoryCreatesOneByName) {
    auto const created = Vel::ptr_cast<Cell::Status>(Vel::globalDir()->createEntity("Cell::Status", "x"));
    ASSERT_TRUE(created);
    EXPECT_EQ(created->name(), "x");
    EXPECT_TRUE(created->hasNotificationActive());
    EXPECT_EQ(created->path(), "/x");
}

TEST_F(CellStatusTest, DirectoryRefusesConstructorArguments) {
    int const argument = 1;
    void const* const arguments[] = {&argument};
    EXPECT_EQ(
        textOf<Vel::NewEntityArgsException>([&] { Vel::globalDir()->createEntity("Cell::Status", "x", arguments); }),
        "an entity of type Cell::Status takes no constructor arguments but its name");
    EXPECT_EQ(Vel::globalDir()->entries(), 0u);
}

TEST_F(CellStatusTest, KnowsItsTypeAndSharesItsName) {
    EXPECT_EQ(entity->fwkType(), Vel::typeOf<Cell::Status>());
    EXPECT_STREQ(entity->fwkType().name(), "Cell::Status");
    EXPECT_EQ(entity->fwkType().moduleName(), "Cell");
    EXPECT_TRUE(entity->name().sharesStorageWith(entity->name()));
    EXPECT_EQ(Vel::Registry::type("Cell::Status"), entity->fwkType());
}

// --- mutators ---

TEST_F(CellStatusTest, MutatorsNotifyTheirIdOnceWhenTheValueChanges) {
    observe(*entity);
    Cell::Status const& status = *entity;  // the cache is logically constant
    for (int again = 0; again < 2; ++again) {
        status.cellIdIs(7);
        status.activeCellIdIs(8);
        status.cellTypeIs("type");
        status.productIs("product");
        status.electionMgrSupportedIs(true);
        status.electionMgrSupportedInitializedIs(true);
        status.cpuBmcModeIs(true);
        status.cpuBmcModeInitializedIs(true);
    }
    EXPECT_EQ(notified, (Ids{258, 259, 260, 261, 262, 263, 264, 265}));
}

TEST_F(CellStatusTest, MutatorsDoNotNotifyInitialValues) {
    observe(*entity);
    entity->cellIdIs(0);
    entity->activeCellIdIs(0);
    entity->cellTypeIs("");
    entity->productIs("");
    entity->electionMgrSupportedIs(false);
    entity->electionMgrSupportedInitializedIs(false);
    entity->cpuBmcModeIs(false);
    entity->cpuBmcModeInitializedIs(false);
    EXPECT_EQ(notified, Ids());
}

TEST_F(CellStatusTest, ObserversSeeTheNewValue) {
    Vel::String seen;
    auto const notifiee = Vel::notifieeOf(*entity, [&](Vel::AttributeId) { seen = entity->cellType(); });
    entity->cellTypeIs("new");
    EXPECT_EQ(seen, "new");
}

TEST_F(CellStatusTest, ChangeBackIsAChange) {
    observe(*entity);
    entity->cellIdIs(7);
    entity->cellIdIs(0);
    entity->cellIdIs(0);
    EXPECT_EQ(notified, (Ids{258, 258}));
}

// --- reflection ---

TEST_F(CellStatusTest, AttributesHaveTheirIdsNamesAndTypes) {
    EXPECT_EQ(attributesOf(Vel::typeOf<Cell::Status>()),
        (std::vector<std::string>{"258 cellId entityAttribute get set Cell::CellId",
            "259 activeCellId entityAttribute get set Cell::CellId", "260 cellType entityAttribute get set Vel::String",
            "261 product entityAttribute get set Vel::String", "262 electionMgrSupported entityAttribute get set bool",
            "263 electionMgrSupportedInitialized entityAttribute get set bool",
            "264 cpuBmcMode entityAttribute get set bool", "265 cpuBmcModeInitialized entityAttribute get set bool"}));
}

TEST_F(CellStatusTest, ReflectiveGetReadsLazilyAndTellsNobody) {
    observe(*entity);
    world.environment = {
        {"CELLID", "2"}, {"CELLTYPE", "t"}, {"PRODUCT", "p"}, {"ELECTIONMGRSUPPORTED", "TRUE"}, {"CPUBMCMODE", "TRUE"}};
    EXPECT_EQ(get<Cell::CellId>(258), 2);
    EXPECT_EQ(get<Vel::String>(260), "t");
    EXPECT_EQ(get<Vel::String>(261), "p");
    EXPECT_FALSE(get<bool>(263));
    EXPECT_TRUE(get<bool>(262));
    EXPECT_TRUE(get<bool>(263));
    EXPECT_FALSE(get<bool>(265));
    EXPECT_TRUE(get<bool>(264));
    EXPECT_TRUE(get<bool>(265));
    EXPECT_EQ(notified, Ids());
}

TEST_F(CellStatusTest, ReflectiveGetOfTheActiveCellResolvesAndStoresWithoutNotice) {
    observe(*entity);
    world.environment = {{"ACTIVE_CELLID", "2"}};
    EXPECT_EQ(get<Cell::CellId>(259), 2);
    EXPECT_EQ(notified, Ids());
    entity->activeCellIdIs(2);  // what is stored already: no change
    EXPECT_EQ(notified, Ids());
    entity->activeCellIdIs(3);
    EXPECT_EQ(notified, Ids{259});
}

TEST_F(CellStatusTest, ReflectiveSetGoesThroughTheMutator) {
    observe(*entity);
    for (int again = 0; again < 2; ++again) {
        EXPECT_EQ(set(258, Cell::CellId(7)), 0);
        EXPECT_EQ(set(259, Cell::CellId(8)), 0);
        EXPECT_EQ(set(260, Vel::String("type")), 0);
        EXPECT_EQ(set(261, Vel::String("product")), 0);
        for (Vel::AttributeId const id : {262u, 263u, 264u, 265u}) EXPECT_EQ(set(id, true), 0);
    }
    EXPECT_EQ(notified, (Ids{258, 259, 260, 261, 262, 263, 264, 265}));
    EXPECT_EQ(entity->cellId(), 7);
    EXPECT_EQ(entity->cellType(), "type");
    EXPECT_EQ(entity->product(), "product");
    EXPECT_TRUE(entity->electionMgrSupported());
    EXPECT_TRUE(entity->cpuBmcMode());
}

TEST_F(CellStatusTest, ReflectiveGetPassesTheReadersErrorsOn) {
    world.environment["CELLID"] = "x";
    Cell::CellId result = 99;
    EXPECT_THROW(entity->attributeOp(&result, attributeOfId(258), AttributeOp::get), Vel::RangeException);
    EXPECT_EQ(result, 99);
}

TEST_F(CellStatusTest, OtherOperationsAreRefused) {
    Cell::CellId value = 99;
    for (Vel::AttributeId id = 258; id <= 265; ++id)
        for (Vel::U32 op = 2; op < 40; ++op)
            EXPECT_EQ(entity->attributeOp(&value, attributeOfId(id), AttributeOp(op), &value, &value), 1)
                << id << " " << op;
    for (Vel::U32 op = 0; op < 40; ++op)
        EXPECT_EQ(entity->attributeOp(&value, Vel::VelAttr(), AttributeOp(op), &value, &value), 1) << op;
    EXPECT_EQ(value, 99);
}

TEST_F(CellStatusTest, OtherIdsAreUnknown) {
    auto const type = Vel::typeOf<Cell::Status>();
    for (Vel::AttributeId const id : {0u, 1u, 2u, 257u, 266u}) EXPECT_FALSE(type.attributeOfId(id)) << id;
    EXPECT_FALSE(type.attribute("name"));
    Vel::U32 value = 99;
    for (Vel::U32 op = 0; op < 40; ++op) {
        EXPECT_EQ(entity->attributeOp(&value, Vel::VelAttr(type, 8), AttributeOp(op)), 2) << op;
        EXPECT_EQ(entity->attributeOp(&value, Vel::VelAttr(Vel::typeOf<Mox::Seqno32>(), 0), AttributeOp(op)), 2) << op;
    }
    EXPECT_EQ(value, 99u);
}

// --- virtual operations ---

TEST_F(CellStatusTest, VirtualOperationsStandInTheAgreedOrder) {
    EXPECT_EQ(slotOf(&Cell::Status::notifieeList), 0);
    EXPECT_EQ(slotOf(&Cell::Status::hasNotificationActiveIs), 1);
    EXPECT_EQ(slotOf(&Cell::Status::zeroReferencesIs), 2);
    EXPECT_EQ(slotOf(&Cell::Status::fwkType), 3);
    // 4 and 5: the destructor, without and with releasing the memory
    EXPECT_EQ(slotOf(&Cell::Status::name), 6);
    EXPECT_EQ(slotOf(&Cell::Status::handleParent), 7);
}

// --- the process's status ---

TEST_F(CellStatusTest, StandsAtQlCellWithoutASystemName) {
    EXPECT_FALSE(status());
    Cell::cellId();
    ASSERT_TRUE(status());
    EXPECT_EQ(status()->path(), "/ql/cell");
    EXPECT_EQ(status()->name(), "cell");
    EXPECT_TRUE(status()->hasNotificationActive());
    EXPECT_EQ(Vel::globalDir()->entry("ql")->fwkType(), Vel::typeOf<Vel::Dir>());
}

TEST_F(CellStatusTest, EachFunctionMakesIt) {
    for (auto const& call : {std::function<void()>([] { Cell::cellId(); }), std::function<void()>(&Cell::cellType),
             std::function<void()>(&Cell::product), std::function<void()>(&Cell::electionMgrSupported),
             std::function<void()>(&Cell::cpuBmcMode), std::function<void()>(&Cell::activeCellId),
             std::function<void()>([] { Cell::path("x", 0); })}) {
        Vel::globalDir()->entryDelAll();
        call();
        EXPECT_TRUE(status());
    }
}

TEST_F(CellStatusTest, StandsBelowTheSystemName) {
    Vel::activityManager().systemNameIs("other");
    world.environment["CELLID"] = "6";
    EXPECT_EQ(Cell::cellId(), 6u);
    auto const found = Vel::ptr_cast<Cell::Status>(Vel::globalDir()->entity("/other/cell"));
    ASSERT_TRUE(found);
    EXPECT_EQ(found->cellId(), 6);
    EXPECT_FALSE(Vel::globalDir()->entry("ql"));
}

TEST_F(CellStatusTest, FunctionsAnswerFromTheEntityThatIsThere) {
    auto const dir = Vel::ptr_cast<Vel::Dir>(Vel::globalDir()->createEntity("Vel::Dir", "ql"));
    auto const own = Cell::statusFactory("cell");
    dir->entryIs(own);
    own->cellIdIs(11);
    own->cellTypeIs("type");
    own->productIs("product");
    own->electionMgrSupportedIs(true);
    own->electionMgrSupportedInitializedIs(true);
    EXPECT_EQ(Cell::cellId(), 11u);
    EXPECT_EQ(Cell::cellType(), "type");
    EXPECT_EQ(Cell::product(), "product");
    EXPECT_TRUE(Cell::electionMgrSupported());
    EXPECT_EQ(own->references(), 2u);
}

TEST_F(CellStatusTest, IsFoundOrMadeAtItsPlace) {
    auto const made = Cell::cellDir();
    ASSERT_TRUE(made);
    EXPECT_EQ(made->path(), "/ql/cell");
    EXPECT_EQ(Cell::cellDir(), made);
}

TEST_F(CellStatusTest, ForeignEntityInItsPlaceIsNoStatus) {
    auto const dir = Vel::ptr_cast<Vel::Dir>(Vel::globalDir()->createEntity("Vel::Dir", "ql"));
    dir->createEntity("Vel::Dir", "cell");
    EXPECT_EQ(Cell::cellDir(), nullptr);
    Vel::globalDir()->entryDelAll();
    Vel::globalDir()->createEntity("Cell::Status", "ql");
    EXPECT_EQ(Cell::cellDir(), nullptr);
}

TEST_F(CellStatusTest, ForeignEntityInItsPlaceIsAnError) {
    auto const dir = Vel::ptr_cast<Vel::Dir>(Vel::globalDir()->createEntity("Vel::Dir", "ql"));
    dir->createEntity("Vel::Dir", "cell");
    EXPECT_EQ(textOf<Vel::TypeException>([] { Cell::cellId(); }), "/ql/cell is no Cell::Status");
    Vel::globalDir()->entryDelAll();
    Vel::globalDir()->createEntity("Cell::Status", "ql");
    EXPECT_EQ(textOf<Vel::TypeException>([] { Cell::activeCellId(); }), "/ql is no Vel::Dir");
}

TEST_F(CellStatusTest, FunctionsLeaveNoReferenceBehind) {
    world.environment["CELLID"] = "x";
    EXPECT_THROW(Cell::cellId(), Vel::RangeException);
    world.environment["CELLID"] = "1";
    Cell::cellId();
    Cell::activeCellId();
    Cell::product();
    EXPECT_EQ(status()->references(), 2u);  // the directory's and the one in this line
}

// --- a status that was found once ---

TEST_F(CellStatusTest, ReplacedStatusIsFound) {
    world.environment["CELLID"] = "5";
    EXPECT_EQ(Cell::cellId(), 5u);
    auto const before = Cell::cellDir();
    auto const dir = Vel::ptr_cast<Vel::Dir>(Vel::globalDir()->entry("ql"));
    dir->entryDel("cell");
    auto const own = Cell::statusFactory("cell");
    own->cellIdIs(6);
    dir->entryIs(own);
    EXPECT_EQ(Cell::cellId(), 6u);
    EXPECT_EQ(Cell::cellDir(), own);
    EXPECT_EQ(before->cellId(), 5);
}

TEST_F(CellStatusTest, DeletedStatusIsMadeAnew) {
    world.environment["CELLID"] = "5";
    EXPECT_EQ(Cell::cellId(), 5u);
    Vel::ptr_cast<Vel::Dir>(Vel::globalDir()->entry("ql"))->entryDel("cell");  // the last reference
    world.environment["CELLID"] = "7";
    EXPECT_EQ(Cell::cellId(), 7u);
    ASSERT_TRUE(status());
    EXPECT_EQ(status()->cellId(), 7);
}

TEST_F(CellStatusTest, StatusOfAReplacedDirectoryIsNotAsked) {
    world.environment["CELLID"] = "5";
    EXPECT_EQ(Cell::cellId(), 5u);
    auto const before = Vel::globalDir()->entryDel("ql");  // lives on, with the status in it
    world.environment["CELLID"] = "8";
    EXPECT_EQ(Cell::cellId(), 8u);
    ASSERT_TRUE(status());
    EXPECT_NE(status()->parent(), before.get());
    Vel::globalDir()->entryDelAll();
    Vel::globalDir()->entryIs(before);
    EXPECT_EQ(Cell::cellId(), 5u);
}

TEST_F(CellStatusTest, StatusFollowsTheSystemName) {
    world.environment["CELLID"] = "5";
    EXPECT_EQ(Cell::cellId(), 5u);
    Vel::activityManager().systemNameIs("other");
    world.environment["CELLID"] = "9";
    EXPECT_EQ(Cell::cellId(), 9u);
    EXPECT_EQ(Cell::cellDir()->path(), "/other/cell");
    Vel::activityManager().systemNameIs("");
    EXPECT_EQ(Cell::cellId(), 5u);
}

TEST_F(CellStatusTest, StatusReplacedByAForeignEntityIsAnError) {
    Cell::cellId();
    auto const dir = Vel::ptr_cast<Vel::Dir>(Vel::globalDir()->entry("ql"));
    dir->entryDel("cell");
    dir->createEntity("Vel::Dir", "cell");
    EXPECT_EQ(textOf<Vel::TypeException>([] { Cell::cellId(); }), "/ql/cell is no Cell::Status");
    EXPECT_EQ(Cell::cellDir(), nullptr);
}

TEST_F(CellStatusTest, ObserverOfTheDirectorySeesTheNewStatus) {
    Cell::cellDir()->cellIdIs(5);
    auto const dir = Vel::ptr_cast<Vel::Dir>(Vel::globalDir()->entry("ql"));
    std::vector<Vel::U32> seen;
    auto const notifiee = Vel::notifieeOf(*dir, [&](Vel::AttributeId) { seen.push_back(Cell::cellId()); });
    world.environment["CELLID"] = "7";
    dir->entryDel("cell");  // the observer asks: one is made, and the observer is told of it
    EXPECT_EQ(seen, std::vector<Vel::U32>(2, 7));
}

// A directory that answers with a child that it does not list.
class CellStatusCoveringDir : public Vel::Dir {
public:
    using Dir::Dir;
    Vel::Ptr<Vel::Entity> velChild(std::string_view name) const override {
        return covering ? covering : Vel::Dir::velChild(name);
    }
    Vel::Ptr<Vel::Entity> covering;
};

TEST_F(CellStatusTest, DirectoryOfADerivedClassIsAskedEveryTime) {
    Vel::Ptr<CellStatusCoveringDir> const dir(new CellStatusCoveringDir("ql"));
    Vel::globalDir()->entryIs(dir);
    auto const listed = Cell::cellDir();
    listed->cellIdIs(3);
    EXPECT_EQ(Cell::cellId(), 3u);
    auto const other = Cell::statusFactory("cell");
    other->cellIdIs(4);
    dir->covering = other;
    EXPECT_EQ(Cell::cellId(), 4u);
    dir->covering = nullptr;
    EXPECT_EQ(Cell::cellId(), 3u);
}

TEST_F(CellStatusTest, ThreadsFindTheSameStatus) {
    for (int round = 0; round < 50; ++round) {
        Vel::globalDir()->entryDelAll();
        auto const dir = Vel::ptr_cast<Vel::Dir>(Vel::globalDir()->createEntity("Vel::Dir", "ql"));
        auto const own = Cell::statusFactory("cell");
        own->cellIdIs(static_cast<Vel::U16>(1 + round));
        dir->entryIs(own);
        std::atomic<int> wrong = 0;
        Vel::VFPtrInterface::threadSafePointers_ = true;
        {
            std::vector<std::jthread> threads;
            for (int i = 0; i < 3; ++i)
                threads.emplace_back([&] {
                    for (int call = 0; call < 100; ++call)
                        if (Cell::cellId() != static_cast<Vel::U32>(1 + round)) ++wrong;
                });
        }
        Vel::VFPtrInterface::threadSafePointers_ = false;
        EXPECT_EQ(wrong, 0);
    }
}

// --- paths ---

TEST_F(CellStatusTest, PathsAreRelativeAndNameTheCell) {
    for (auto const function : {&Cell::path, &Cell::mountpath}) {
        EXPECT_EQ(function("x", 7), "cell/7/x");
        EXPECT_EQ(function("", 7), "cell/7/");
        EXPECT_EQ(function("redundancy/status", 4294967295u), "cell/4294967295/redundancy/status");
        EXPECT_EQ(function("%s%n", 1), "cell/1/%s%n");
    }
    EXPECT_EQ(world.takeCalls(), std::vector<std::string>());
}

TEST_F(CellStatusTest, PathOfCellZeroIsTheOwnCells) {
    EXPECT_EQ(Cell::path("x", 0), "cell/42/x");
    status()->cellIdIs(1);
    EXPECT_EQ(Cell::path("redundancy/status", 0), "cell/1/redundancy/status");
    EXPECT_EQ(Cell::mountpath("redundancy/status", 0), "cell/1/redundancy/status");
}

TEST_F(CellStatusTest, PathOfTheOwnCellPassesTheReadersErrorsOn) {
    world.environment["CELLID"] = "x";
    EXPECT_THROW(Cell::path("x", 0), Vel::RangeException);
    EXPECT_THROW(Cell::mountpath("x", 0), Vel::RangeException);
    EXPECT_EQ(Cell::path("x", 1), "cell/1/x");
}

}  // namespace
