#include "Mox/CellSource.h"

#include "CellTest.h"

#include "Redundancy/RedundancyStatus.h"

#include <gmock/gmock.h>

// Where each answer comes from, told by those who know the order.
namespace {

using Cell::Explained;
using Cell::Source;
using testing::ElementsAre;
using Kind = Cell::Source::Kind;

constexpr char localMode[] = "/sys/quelto/election_manager/local_redundancy_mode";
constexpr char peerMode[] = "/sys/quelto/election_manager/peer_redundancy_mode";

// "CELLID = 7", "no CELLID", "/etc/cellid: '3'", "no /etc/cellid (2)", "/etc/cellid unread (21)": errno in parentheses.
std::string spelled(Source::Asked const& asked) {
    std::string const error = asked.error == 0 ? "" : " (" + std::to_string(asked.error) + ")";
    if (!asked.found) return "no " + asked.name + error;
    if (asked.isVariable) return asked.name + " = " + asked.text.value();
    return asked.name + (asked.text ? ": '" + *asked.text + "'" : " unread") + error;
}

std::vector<std::string> askedOf(Source const& source) {
    std::vector<std::string> texts;
    for (Source::Asked const& asked : source.asked) texts.push_back(spelled(asked));
    return texts;
}

class CellExplainedTest : public CellTest {
protected:
    void redundancyStatus(Vel::U32 activeCell) {
        auto folder = Vel::globalDir();
        for (char const* const name : {"ql", "Zendb", "cell", "1", "redundancy"})
            folder = Vel::ptr_cast<Vel::Dir>(folder->createEntity("Vel::Dir", name));
        auto const status = Redundancy::redundancyStatusFactory("status");
        status->activeCellIdIs(activeCell);
        folder->entryIs(status);
    }
    void modes(char const* local, char const* peer) {
        world.files["/etc/cellid"].content = "1";
        world.files[localMode].content = local;
        world.files[peerMode].content = peer;
    }
    std::string noFile(char const* path) const {
        return "no " + std::string(path) + " (" + std::to_string(ENOENT) + ")";
    }

    Source from;
};

TEST_F(CellExplainedTest, AVariableAnswersAndNothingElseIsAsked) {
    world.environment["CELLTYPE"] = "fixed";
    EXPECT_EQ(Explained::cellType(from), "fixed");
    EXPECT_EQ(from.kind, Kind::variable);
    EXPECT_THAT(askedOf(from), ElementsAre("CELLTYPE = fixed"));
}

TEST_F(CellExplainedTest, AFileAnswersWhenTheVariableIsNotSet) {
    world.files["/etc/product"].content = "box\n";
    EXPECT_EQ(Explained::product(from), "box\n");
    EXPECT_EQ(from.kind, Kind::file);
    EXPECT_THAT(askedOf(from), ElementsAre("no PRODUCT", "/etc/product: 'box\n'"));
}

TEST_F(CellExplainedTest, ADefaultTellsWhatHasBeenAskedInVain) {
    EXPECT_FALSE(Explained::cpuBmcMode(from));
    EXPECT_EQ(from.kind, Kind::builtIn);
    EXPECT_THAT(askedOf(from), ElementsAre("no CPUBMCMODE", noFile("/etc/cpuBmcMode")));
}

TEST_F(CellExplainedTest, WhatIsCachedComesFromTheStatus) {
    world.environment["CELLID"] = "7";
    EXPECT_EQ(Cell::cellId(), 7u);
    EXPECT_EQ(Explained::cellId(from), 7u);
    EXPECT_EQ(from.kind, Kind::status);
    EXPECT_THAT(askedOf(from), ElementsAre());
}

TEST_F(CellExplainedTest, AnswersAndCachesAsCellDoes) {
    world.environment["ELECTIONMGRSUPPORTED"] = "TRUE";
    EXPECT_TRUE(Explained::electionMgrSupported(from));
    EXPECT_EQ(from.kind, Kind::variable);
    world.environment.clear();
    EXPECT_TRUE(Cell::electionMgrSupported());
}

TEST_F(CellExplainedTest, WhatFailedIsToldToo) {
    world.files["/etc/cellid"].content = "3\n";
    EXPECT_THROW(Explained::cellId(from), Vel::RangeException);
    EXPECT_EQ(from.kind, Kind::file);
    EXPECT_THAT(askedOf(from), ElementsAre("no CELLID", "/etc/cellid: '3\n'"));
}

TEST_F(CellExplainedTest, TheErrorsOfFilesAreTold) {
    world.files["/etc/celltype"].readError = EISDIR;
    world.files["/etc/product"].openError = ELOOP;
    EXPECT_EQ(errnoOf([&] { Explained::cellType(from); }), EISDIR);
    EXPECT_EQ(from.kind, Kind::file);
    EXPECT_THAT(askedOf(from), ElementsAre("no CELLTYPE", "/etc/celltype unread (" + std::to_string(EISDIR) + ")"));
    EXPECT_EQ(errnoOf([&] { Explained::product(from); }), ELOOP);
    EXPECT_EQ(from.kind, Kind::file);
    EXPECT_THAT(askedOf(from), ElementsAre("no PRODUCT", "no /etc/product (" + std::to_string(ELOOP) + ")"));
}

// --- the active cell ---

TEST_F(CellExplainedTest, TheVariableOfTheActiveCellComesFirst) {
    world.environment["ACTIVE_CELLID"] = "70000";
    EXPECT_EQ(Explained::activeCellId(from), 4464u);
    EXPECT_EQ(from.kind, Kind::variable);
    EXPECT_THAT(askedOf(from), ElementsAre("ACTIVE_CELLID = 70000"));
}

TEST_F(CellExplainedTest, ARedundancyStatusIsToldByItsPath) {
    modes("active", "standby");
    redundancyStatus(7);
    EXPECT_EQ(Explained::activeCellId(from), 7u);
    EXPECT_EQ(from.kind, Kind::redundancyStatus);
    EXPECT_EQ(from.path, "/ql/Zendb/cell/1/redundancy/status");
    EXPECT_THAT(askedOf(from), ElementsAre());
}

TEST_F(CellExplainedTest, ModeFilesAreToldAsFarAsTheyWereRead) {
    modes("standby", "active");
    EXPECT_EQ(Explained::activeCellId(from), 2u);
    EXPECT_EQ(from.kind, Kind::modeFiles);
    EXPECT_THAT(askedOf(from), ElementsAre(std::string(localMode) + ": 'standby'", std::string(peerMode) + " unread"));
    modes("active", "standby");
    EXPECT_EQ(Explained::activeCellId(from), 1u);
    EXPECT_THAT(
        askedOf(from), ElementsAre(std::string(localMode) + ": 'active'", std::string(peerMode) + ": 'standby'"));
}

TEST_F(CellExplainedTest, TheOwnCellTellsTheModeFileThatIsMissing) {
    modes("active", "active");
    world.files.erase(peerMode);
    EXPECT_EQ(Explained::activeCellId(from), 1u);
    EXPECT_EQ(from.kind, Kind::ownCell);
    EXPECT_THAT(askedOf(from), ElementsAre(std::string(localMode) + " unread", noFile(peerMode)));
}

TEST_F(CellExplainedTest, AModeFileThatCannotBeReadIsTold) {
    modes("active", "");
    world.files[peerMode].readError = EIO;
    EXPECT_EQ(errnoOf([&] { Explained::activeCellId(from); }), EIO);
    EXPECT_EQ(from.kind, Kind::modeFiles);
    EXPECT_THAT(askedOf(from), ElementsAre(std::string(localMode) + ": 'active'",
                                   std::string(peerMode) + " unread (" + std::to_string(EIO) + ")"));
}

TEST_F(CellExplainedTest, WithoutAnOwnCellItsSourceIsTold) {
    world.environment["CELLID"] = "x";
    EXPECT_THROW(Explained::activeCellId(from), Vel::RangeException);
    EXPECT_EQ(from.kind, Kind::variable);
    EXPECT_THAT(askedOf(from), ElementsAre("CELLID = x"));
}

TEST_F(CellExplainedTest, AsksAndTracesAsCellDoes) {
    modes("standby", "active");
    traceLevels("Cell/0");
    Cell::activeCellId();
    auto const calls = world.takeCalls();
    auto const records = std::exchange(traced, {});
    Vel::globalDir()->entryDelAll();
    Explained::activeCellId(from);
    EXPECT_EQ(world.takeCalls(), calls);
    EXPECT_EQ(traced, records);
    EXPECT_FALSE(records.empty());
}

}  // namespace
