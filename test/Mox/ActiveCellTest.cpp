#include "CellTest.h"

#include "Redundancy/RedundancyStatus.h"

namespace {

using namespace std::string_literals;
using Strings = std::vector<std::string>;

std::string const localFile = "/sys/quelto/election_manager/local_redundancy_mode";
std::string const peerFile = "/sys/quelto/election_manager/peer_redundancy_mode";

std::string const entryRecord = "Cell/0 /src/Mox/Cell:110 Cell_activeCellId: Cell::CellId Cell_activeCellId()";
std::string const environmentRecord =
    "Cell/0 /src/Mox/Cell:114 Cell_activeCellId: Found active cellId from ACTIVE_CELLID env var";
std::string const statusRecord = "Cell/0 /src/Mox/Cell:126 Cell_activeCellId: Cell_activeCellId RedundancyStatus is: ";
std::string const knownRecord =
    "Cell/0 /src/Mox/Cell:129 Cell_activeCellId: Cell_activeCellIdFound active cellId from RedundancyStatus";
std::string const filesRecord =
    "Cell/0 /src/Mox/Cell:146 Cell_activeCellId: Cell_activeCellId Reading active cellId from ";
std::string const localRecord = "Cell/0 /src/Mox/Cell:166 Cell_activeCellId: Cell_activeCellId Read ";
std::string const peerRecord = "Cell/0 /src/Mox/Cell:183 Cell_activeCellId: Cell_activeCellId Read ";
std::string const ownRecord = "Cell/0 /src/Mox/Cell:189 Cell_activeCellId: "
                              "Cell_activeCellIdDid not find active cellId, returning own cellId";
std::string const accessorRecord =
    "Cell/0 /src/Mox/Cell:402 activeCellId: Cell::CellId Cell::Status::activeCellId() const returning ";
std::string const functionRecord = "Cell/0 /src/Mox/Cell:365 activeCellId: U32 Cell::activeCellId() returning ";

// A process on cell 1, on which nothing says which cell is active.
class ActiveCellTest : public CellTest {
protected:
    ActiveCellTest() { world.environment["CELLID"] = "1"; }

    void modes(std::string const& local, std::string const& peer) {
        world.files[localFile].content = local;
        world.files[peerFile].content = peer;
    }

    // The directory at a path, made with all above it where missing.
    static Vel::Ptr<Vel::Dir> directory(Strings const& names) {
        auto dir = Vel::globalDir();
        for (auto const& name : names) dir = Vel::ptr_cast<Vel::Dir>(dir->createEntity("Vel::Dir", name));
        return dir;
    }
    static Vel::Ptr<Redundancy::RedundancyStatus> redundancyStatus(
        std::string const& cell, std::string const& system = "ql") {
        return Vel::ptr_cast<Redundancy::RedundancyStatus>(
            directory({system, "Zendb", "cell", cell, "redundancy"})
                ->createEntity("Redundancy::RedundancyStatus", "status"));
    }
};

// --- the environment ---

TEST_F(ActiveCellTest, VariableDecidesAndNothingElseIsConsulted) {
    world.environment["ACTIVE_CELLID"] = "2";
    redundancyStatus("1")->activeCellIdIs(1);
    modes("active", "standby");
    EXPECT_EQ(Cell::activeCellId(), 2u);
    EXPECT_EQ(world.takeCalls(), Strings{"getenv ACTIVE_CELLID"});
}

TEST_F(ActiveCellTest, VariableIsTakenWithoutValidation) {
    for (auto const& [text, id] : std::map<std::string, Vel::U32>{{"abc", 0}, {"", 0}, {"70000", 4464}, {"65536", 0},
             {"-1", 65535}, {" 5", 5}, {"2x", 2}, {"2\n", 2}, {"0x10", 0}, {"010", 10}, {"99999999999999999999", 65535},
             {"-99999999999999999999", 0}}) {
        world.environment["ACTIVE_CELLID"] = text;
        EXPECT_EQ(Cell::activeCellId(), id) << text;
    }
}

TEST_F(ActiveCellTest, VariableWorksOnACellWhoseOwnIdIsInvalid) {
    world.environment["CELLID"] = "x";
    world.environment["ACTIVE_CELLID"] = "2";
    EXPECT_EQ(Cell::activeCellId(), 2u);
}

// --- the redundancy status ---

TEST_F(ActiveCellTest, KnownRedundancyStatusDecidesAndTheModeFilesAreNotRead) {
    redundancyStatus("1")->activeCellIdIs(2);
    modes("active", "standby");
    EXPECT_EQ(Cell::activeCellId(), 2u);
    EXPECT_EQ(world.takeCalls(), (Strings{"getenv ACTIVE_CELLID", "getenv CELLID"}));
}

TEST_F(ActiveCellTest, RedundancyStatusIsLookedUpUnderTheOwnCell) {
    redundancyStatus("2")->activeCellIdIs(7);
    EXPECT_EQ(Cell::activeCellId(), 1u);
    redundancyStatus("1")->activeCellIdIs(8);
    EXPECT_EQ(Cell::activeCellId(), 8u);
}

TEST_F(ActiveCellTest, RedundancyStatusIsLookedUpUnderTheCachedCellId) {
    redundancyStatus("5")->activeCellIdIs(7);
    EXPECT_EQ(Cell::cellId(), 1u);
    status()->cellIdIs(5);
    EXPECT_EQ(Cell::activeCellId(), 7u);
}

TEST_F(ActiveCellTest, RedundancyStatusIsLookedUpUnderTheSystemName) {
    redundancyStatus("1")->activeCellIdIs(3);
    redundancyStatus("1", "other")->activeCellIdIs(4);
    EXPECT_EQ(Cell::activeCellId(), 3u);
    Vel::activityManager().systemNameIs("other");
    EXPECT_EQ(Cell::activeCellId(), 4u);
}

TEST_F(ActiveCellTest, UnknownRedundancyStatusIsPassedOver) {
    redundancyStatus("1")->activeCellIdIs(0xFFFFFFFFu);
    modes("standby", "active");
    EXPECT_EQ(Cell::activeCellId(), 2u);
}

TEST_F(ActiveCellTest, RedundancyStatusIsTruncatedTo16Bits) {
    for (auto const& [stored, id] :
        std::map<Vel::U32, Vel::U32>{{0, 0}, {65535, 65535}, {65536, 0}, {70000, 4464}, {0xFFFFFFFEu, 65534}}) {
        redundancyStatus("1")->activeCellIdIs(stored);
        EXPECT_EQ(Cell::activeCellId(), id) << stored;
    }
}

TEST_F(ActiveCellTest, EntityOfAnotherTypeIsNoRedundancyStatus) {
    directory({"ql", "Zendb", "cell", "1", "redundancy", "status"});
    modes("standby", "active");
    EXPECT_EQ(Cell::activeCellId(), 2u);
}

TEST_F(ActiveCellTest, LookingUpTheRedundancyStatusCreatesNothing) {
    Cell::activeCellId();
    EXPECT_EQ(Vel::globalDir()->entries(), 1u);
    EXPECT_EQ(Vel::ptr_cast<Vel::Dir>(Vel::globalDir()->entry("ql"))->entries(), 1u);
}

TEST_F(ActiveCellTest, EveryCallSeesTheRedundancyStatusOfNow) {
    auto const redundancy = redundancyStatus("1");
    redundancy->activeCellIdIs(1);
    EXPECT_EQ(Cell::activeCellId(), 1u);
    redundancy->activeCellIdIs(2);
    EXPECT_EQ(Cell::activeCellId(), 2u);
    redundancy->activeCellIdIs(Redundancy::RedundancyStatus::unknownCell);
    EXPECT_EQ(Cell::activeCellId(), 1u);
}

TEST_F(ActiveCellTest, ReferencesAreReleased) {
    auto const redundancy = redundancyStatus("1");
    redundancy->activeCellIdIs(1);
    Cell::activeCellId();
    auto const own = status();
    Vel::U32 const before[] = {redundancy->references(), own->references()};
    Cell::activeCellId();
    redundancy->activeCellIdIs(Redundancy::RedundancyStatus::unknownCell);
    world.files[localFile].readError = EIO;
    modes("active", "active");
    EXPECT_EQ(errnoOf([] { Cell::activeCellId(); }), EIO);
    EXPECT_EQ(redundancy->references(), before[0]);
    EXPECT_EQ(own->references(), before[1]);
}

// --- the mode files ---

TEST_F(ActiveCellTest, ModeFilesAreReadInOrderAndClosed) {
    modes("active", "standby");
    EXPECT_EQ(Cell::activeCellId(), 1u);
    Strings calls = world.takeCalls();
    ASSERT_EQ(calls.size(), 11u);
    std::sort(calls.end() - 2, calls.end());  // the order of closing does not matter
    EXPECT_EQ(calls,
        (Strings{"getenv ACTIVE_CELLID", "getenv CELLID", "getenv REDSUPDUT_LOCAL_REDMODE",
            "getenv REDSUPDUT_PEER_REDMODE", "getenv CELLID", "open " + localFile, "open " + peerFile,
            "read " + localFile + " 32", "read " + peerFile + " 32", "close " + localFile, "close " + peerFile}));
}

TEST_F(ActiveCellTest, ModesDecideByTheSettledTable) {
    struct Row {
        std::string local, peer;
        Vel::U32 active;
    };
    for (Row const& row : {Row{"standby", "active", 2}, Row{"standby", "standby", 2}, Row{"", "", 2},
             Row{"active", "standby", 1}, Row{"active", "", 1}, Row{"active", "active\n", 1},
             Row{"active", "active", 2}, Row{"active\n", "standby", 2}, Row{"active ", "standby", 2},
             Row{"Active", "standby", 2}, Row{"activ", "standby", 2}, Row{"active\0x"s, "standby", 1},
             Row{"active", "active\0\n"s, 2}, Row{"\0active"s, "standby", 2}}) {
        modes(row.local, row.peer);
        EXPECT_EQ(Cell::activeCellId(), row.active) << row.local << " and " << row.peer;
    }
}

TEST_F(ActiveCellTest, PeerIsNotReadUnlessTheLocalModeIsActive) {
    modes("standby", "active");
    world.files[peerFile].readError = EIO;
    EXPECT_EQ(Cell::activeCellId(), 2u);
    EXPECT_EQ(std::ranges::count(world.takeCalls(), "read " + peerFile + " 32"), 0);
}

TEST_F(ActiveCellTest, PeerIsThreeMinusTheOwnIdIn16Bits) {
    modes("standby", "");
    for (auto const& [own, peer] :
        std::map<std::string, Vel::U32>{{"1", 2}, {"2", 1}, {"3", 0}, {"0", 3}, {"42", 65497}, {"65535", 4}}) {
        world.environment["CELLID"] = own;
        EXPECT_EQ(Cell::activeCellId(), peer) << own;
    }
}

TEST_F(ActiveCellTest, PeerOfTheDefaultCellIsNegativeIn16Bits) {
    world.environment.clear();
    modes("standby", "active");
    EXPECT_EQ(Cell::activeCellId(), 65497u);
}

TEST_F(ActiveCellTest, OwnIdOfTheModeFilesIsReadFromTheSource) {
    EXPECT_EQ(Cell::cellId(), 1u);
    world.environment["CELLID"] = "2";
    modes("standby", "active");
    EXPECT_EQ(Cell::activeCellId(), 1u);
    EXPECT_EQ(Cell::cellId(), 1u);
    status()->cellIdIs(9);
    EXPECT_EQ(Cell::activeCellId(), 1u);
}

TEST_F(ActiveCellTest, ModeFileThatCannotBeOpenedGivesTheOwnCell) {
    for (auto const& missing : {localFile, peerFile})
        for (int const error : {ENOENT, EACCES, EMFILE}) {
            modes("standby", "active");
            world.files[localFile].openError = missing == localFile ? error : 0;
            world.files[peerFile].openError = missing == peerFile ? error : 0;
            world.takeCalls();
            EXPECT_EQ(Cell::activeCellId(), 1u) << missing;
            EXPECT_EQ(world.openFiles(), Strings());
            for (auto const& call : world.takeCalls()) EXPECT_FALSE(call.starts_with("read")) << call;
        }
}

TEST_F(ActiveCellTest, BothVariablesTogetherNameTheModeFiles) {
    world.environment["REDSUPDUT_LOCAL_REDMODE"] = "/tmp/local";
    world.environment["REDSUPDUT_PEER_REDMODE"] = "/tmp/peer";
    world.files["/tmp/local"].content = "active";
    world.files["/tmp/peer"].content = "active";
    modes("active", "standby");
    EXPECT_EQ(Cell::activeCellId(), 2u);
}

TEST_F(ActiveCellTest, OneVariableAloneIsIgnored) {
    world.files["/tmp/mode"].content = "standby";
    modes("active", "standby");
    for (auto const& variable : {"REDSUPDUT_LOCAL_REDMODE", "REDSUPDUT_PEER_REDMODE"}) {
        world.environment = {{"CELLID", "1"}, {variable, "/tmp/mode"}};
        world.takeCalls();
        EXPECT_EQ(Cell::activeCellId(), 1u);
        Strings const calls = world.takeCalls();
        EXPECT_EQ(std::ranges::count(calls, "open " + localFile), 1);
        EXPECT_EQ(std::ranges::count(calls, "open " + peerFile), 1);
    }
}

TEST_F(ActiveCellTest, EmptyVariablesAreSetAndNameNoFile) {
    world.environment["REDSUPDUT_LOCAL_REDMODE"] = "";
    world.environment["REDSUPDUT_PEER_REDMODE"] = "";
    modes("standby", "active");
    EXPECT_EQ(Cell::activeCellId(), 1u);
}

TEST_F(ActiveCellTest, InterruptedReadsOfModeFilesAreRepeated) {
    modes("active", "active");
    world.files[localFile].interruptions = 2;
    world.files[peerFile].interruptions = 1;
    EXPECT_EQ(Cell::activeCellId(), 2u);
    Strings const calls = world.takeCalls();
    EXPECT_EQ(std::ranges::count(calls, "read " + localFile + " 32"), 3);
    EXPECT_EQ(std::ranges::count(calls, "read " + peerFile + " 32"), 2);
}

TEST_F(ActiveCellTest, FailedReadOfAModeFileThrowsItsErrnoAndClosesBoth) {
    for (auto const& bad : {localFile, peerFile}) {
        modes("active", "active");
        world.files[localFile].readError = bad == localFile ? EIO : 0;
        world.files[peerFile].readError = bad == peerFile ? EISDIR : 0;
        EXPECT_EQ(errnoOf([] { Cell::activeCellId(); }), bad == localFile ? EIO : EISDIR);
        EXPECT_EQ(world.openFiles(), Strings());
    }
}

TEST_F(ActiveCellTest, InvalidOwnIdIsAnErrorThatChangesNothing) {
    world.environment["ACTIVE_CELLID"] = "2";
    EXPECT_EQ(Cell::activeCellId(), 2u);
    world.environment = {{"CELLID", "x"}};
    EXPECT_EQ(textOf<Vel::RangeException>([] { Cell::activeCellId(); }), "CELLID did not contain a valid cell id");
    world.environment["ACTIVE_CELLID"] = "3";
    EXPECT_EQ(Cell::activeCellId(), 3u);
}

// --- the answer ---

TEST_F(ActiveCellTest, EveryCallResolvesAgain) {
    modes("standby", "active");
    EXPECT_EQ(Cell::activeCellId(), 2u);
    modes("active", "standby");
    EXPECT_EQ(Cell::activeCellId(), 1u);
    status()->activeCellIdIs(77);
    EXPECT_EQ(Cell::activeCellId(), 1u);
}

// --- traces ---

TEST_F(ActiveCellTest, VariableIsTraced) {
    traceLevels("Cell/0");
    world.environment["ACTIVE_CELLID"] = "70000";
    Cell::activeCellId();
    EXPECT_EQ(traced, (Strings{entryRecord, environmentRecord, accessorRecord + "4464", functionRecord + "4464"}));
}

TEST_F(ActiveCellTest, AccessorTracesAllButTheFunction) {
    traceLevels("Cell/0");
    world.environment["ACTIVE_CELLID"] = "2";
    EXPECT_EQ(Cell::statusFactory("cell")->activeCellId(), 2);
    EXPECT_EQ(traced, (Strings{entryRecord, environmentRecord, accessorRecord + "2"}));
}

TEST_F(ActiveCellTest, KnownRedundancyStatusIsTraced) {
    redundancyStatus("1")->activeCellIdIs(2);
    traceLevels("Cell/0");
    Cell::activeCellId();
    EXPECT_EQ(traced,
        (Strings{entryRecord, statusRecord + "Redundancy::RedundancyStatus('/ql/Zendb/cell/1/redundancy/status')",
            knownRecord, accessorRecord + "2", functionRecord + "2"}));
}

TEST_F(ActiveCellTest, UnknownRedundancyStatusAndMissingFilesAreTraced) {
    redundancyStatus("1");
    traceLevels("Cell/0");
    Cell::activeCellId();
    EXPECT_EQ(traced,
        (Strings{entryRecord, statusRecord + "Redundancy::RedundancyStatus('/ql/Zendb/cell/1/redundancy/status')",
            filesRecord + localFile, ownRecord, accessorRecord + "1", functionRecord + "1"}));
}

TEST_F(ActiveCellTest, LocalModeThatIsNotActiveIsTraced) {
    modes("standby\0x"s, "active");
    traceLevels("Cell/0");
    Cell::activeCellId();
    EXPECT_EQ(traced, (Strings{entryRecord, statusRecord + "None", filesRecord + localFile,
                          localRecord + "standby in " + localFile, accessorRecord + "2", functionRecord + "2"}));
}

TEST_F(ActiveCellTest, ActivePeerIsTraced) {
    world.environment["REDSUPDUT_LOCAL_REDMODE"] = "/tmp/local";
    world.environment["REDSUPDUT_PEER_REDMODE"] = "/tmp/peer";
    world.files["/tmp/local"].content = "active";
    world.files["/tmp/peer"].content = "active";
    traceLevels("Cell/0");
    Cell::activeCellId();
    EXPECT_EQ(traced, (Strings{entryRecord, statusRecord + "None", filesRecord + "/tmp/local",
                          peerRecord + "active in /tmp/peer", accessorRecord + "2", functionRecord + "2"}));
}

TEST_F(ActiveCellTest, PeerThatIsNotActiveIsNotTraced) {
    modes("active", "standby");
    traceLevels("Cell/0");
    Cell::activeCellId();
    EXPECT_EQ(traced, (Strings{entryRecord, statusRecord + "None", filesRecord + localFile, accessorRecord + "1",
                          functionRecord + "1"}));
}

TEST_F(ActiveCellTest, ErrorsEndTheTraceWhereTheyHappen) {
    modes("active", "active");
    world.files[peerFile].readError = EIO;
    traceLevels("Cell/0");
    EXPECT_EQ(errnoOf([] { Cell::activeCellId(); }), EIO);
    EXPECT_EQ(traced, (Strings{entryRecord, statusRecord + "None", filesRecord + localFile}));
}

TEST_F(ActiveCellTest, NothingIsTracedAtOtherLevels) {
    traceLevels("Cell/1-9,PrefixTrie/*");
    Cell::activeCellId();
    EXPECT_EQ(traced, Strings());
}

}  // namespace
