#include "RunTool.h"

#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using namespace ToolTest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

// A machine whose files are all below a folder of the test's own.
class MoxCellTest : public testing::Test {
protected:
    Outcome ask(Environment const& environment = {}, std::vector<std::string> const& more = {}) const {
        std::vector<std::string> arguments{"cell", "--root", root.path()};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return mox(arguments, environment);
    }
    std::vector<std::string> activeCell(Environment const& environment = {}) const {
        return row(ask(environment).out, "active cell");
    }
    void modes(std::string_view local, std::string_view peer) const {
        root.write("etc/cellid", "1");
        root.write(localMode, local);
        root.write(peerMode, peer);
    }

    static constexpr char localMode[] = "sys/quelto/election_manager/local_redundancy_mode";
    static constexpr char peerMode[] = "sys/quelto/election_manager/peer_redundancy_mode";
    Folder root;
    std::string localPath = root.path() + "/" + localMode, peerPath = root.path() + "/" + peerMode;
};

TEST_F(MoxCellTest, GivesTheDefaultsOfAMachineWithoutFiles) {
    Outcome const outcome = ask();
    std::string const r = root.path();
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(
        outcome.out, "cell id                     42       default (no CELLID, no " + r + "/etc/cellid)\n" +
                         "active cell                 42       own cell (no " + localPath + ")\n" +
                         "cell type                   generic  default (no CELLTYPE, no " + r + "/etc/celltype)\n" +
                         "product                     generic  default (no PRODUCT, no " + r + "/etc/product)\n" +
                         "election manager supported  False    default (no ELECTIONMGRSUPPORTED, no " + r +
                         "/etc/electionMgrSupported)\n" +
                         "CPU/BMC mode                False    default (no CPUBMCMODE, no " + r + "/etc/cpuBmcMode)\n");
}

TEST_F(MoxCellTest, GivesTheVariablesAndTheirNames) {
    root.write("etc/cellid", "9");
    Outcome const outcome = ask({{"CELLID", "0x10"}, {"ACTIVE_CELLID", "2"}, {"CELLTYPE", "fixed"}, {"PRODUCT", "box"},
        {"ELECTIONMGRSUPPORTED", "TRUE"}, {"CPUBMCMODE", "FALSE"}});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.out, "cell id                     16     variable CELLID\n"
                           "active cell                 2      variable ACTIVE_CELLID\n"
                           "cell type                   fixed  variable CELLTYPE\n"
                           "product                     box    variable PRODUCT\n"
                           "election manager supported  True   variable ELECTIONMGRSUPPORTED\n"
                           "CPU/BMC mode                False  variable CPUBMCMODE\n");
}

TEST_F(MoxCellTest, GivesTheFilesAndTheirPaths) {
    std::string const id = root.write("etc/cellid", "2"), type = root.write("etc/celltype", "supervisor\n");
    std::string const product = root.write("etc/product", std::string(40, 'x'));
    std::string const election = root.write("etc/electionMgrSupported", "TRUE");
    std::string const mode = root.write("etc/cpuBmcMode", "FALSE");
    std::string const out = ask().out;
    EXPECT_THAT(row(out, "cell id"), ElementsAre("cell id", "2", "file " + id));
    EXPECT_THAT(row(out, "cell type"), ElementsAre("cell type", "'supervisor\\n'", "file " + type));
    EXPECT_THAT(row(out, "product"), ElementsAre("product", std::string(32, 'x'), "file " + product));
    EXPECT_THAT(row(out, "election"), ElementsAre("election manager supported", "True", "file " + election));
    EXPECT_THAT(row(out, "CPU"), ElementsAre("CPU/BMC mode", "False", "file " + mode));
}

TEST_F(MoxCellTest, IgnoresTheVariablesWhenToldTo) {
    root.write("etc/cellid", "2");
    Outcome const outcome = ask({{"CELLID", "7"}, {"ACTIVE_CELLID", "5"}, {"PRODUCT", "box"}}, {"--no-env"});
    EXPECT_THAT(row(outcome.out, "cell id"), ElementsAre("cell id", "2", "file " + root.path() + "/etc/cellid"));
    EXPECT_THAT(row(outcome.out, "active cell"), ElementsAre("active cell", "2", "own cell (no " + localPath + ")"));
    EXPECT_THAT(row(outcome.out, "product")[1], "generic");
}

TEST_F(MoxCellTest, FollowsAbsoluteSymbolicLinksWithinTheRoot) {
    root.write("run/cellid", "3");
    std::filesystem::create_directories(root.path() + "/etc");
    std::filesystem::create_symlink("/run/cellid", root.path() + "/etc/cellid");
    EXPECT_THAT(row(ask().out, "cell id")[1], "3");
}

TEST_F(MoxCellTest, ShowsEmptyTextsAndQuotesAsStreps) {
    Outcome const outcome = ask({{"CELLTYPE", ""}, {"PRODUCT", "'a'"}});
    EXPECT_THAT(row(outcome.out, "cell type")[1], "''");
    EXPECT_THAT(row(outcome.out, "product")[1], "'\\'a\\''");
}

// --- the active cell ---

TEST_F(MoxCellTest, TakesTheActiveCellFromARedundancyStatus) {
    modes("active", "standby");
    Outcome const outcome = ask({}, {"--redundancy-status", "7"});
    EXPECT_THAT(row(outcome.out, "active cell"),
        ElementsAre("active cell", "7", "redundancy status /ql/Zendb/cell/1/redundancy/status"));
}

TEST_F(MoxCellTest, LooksBelowTheNameOfTheSystem) {
    Outcome const outcome = ask({{"CELLID", "2"}}, {"--redundancy-status", "1", "--system", "lab"});
    EXPECT_THAT(row(outcome.out, "active cell"),
        ElementsAre("active cell", "1", "redundancy status /lab/Zendb/cell/2/redundancy/status"));
}

TEST_F(MoxCellTest, PassesOverARedundancyStatusThatKnowsNothing) {
    for (char const* const unknown : {"none", "4294967295"}) {
        Outcome const outcome = ask({{"CELLID", "2"}}, {"--redundancy-status", unknown});
        EXPECT_THAT(
            row(outcome.out, "active cell"), ElementsAre("active cell", "2", "own cell (no " + localPath + ")"));
    }
}

TEST_F(MoxCellTest, AVariableComesBeforeTheRedundancyStatus) {
    Outcome const outcome = ask({{"ACTIVE_CELLID", "70000"}}, {"--redundancy-status", "1"});
    EXPECT_THAT(row(outcome.out, "active cell"), ElementsAre("active cell", "4464", "variable ACTIVE_CELLID"));
}

TEST_F(MoxCellTest, ThePeerIsActiveWhenTheLocalCellIsNot) {
    modes("standby", "active");
    EXPECT_THAT(activeCell(),
        ElementsAre("active cell", "2", "mode files: " + localPath + " holds 'standby', " + peerPath + " not read"));
}

TEST_F(MoxCellTest, TheOwnCellIsActiveWhenOnlyItIs) {
    modes("active", "standby");
    EXPECT_THAT(activeCell(), ElementsAre("active cell", "1",
                                  "mode files: " + localPath + " holds 'active', " + peerPath + " holds 'standby'"));
}

TEST_F(MoxCellTest, ThePeerIsActiveWhenBothAre) {
    modes("active", "active");
    EXPECT_THAT(activeCell(), ElementsAre("active cell", "2",
                                  "mode files: " + localPath + " holds 'active', " + peerPath + " holds 'active'"));
}

TEST_F(MoxCellTest, ShowsTheNewlineThatMakesAModeDiffer) {
    modes("active\n", "standby");
    EXPECT_THAT(activeCell(),
        ElementsAre("active cell", "2", "mode files: " + localPath + " holds 'active\\n', " + peerPath + " not read"));
}

TEST_F(MoxCellTest, TheOwnCellIsActiveWhenTheLocalModeIsMissing) {
    modes("standby", "active");
    std::filesystem::remove(localPath);
    EXPECT_THAT(activeCell(), ElementsAre("active cell", "1", "own cell (no " + localPath + ")"));
}

TEST_F(MoxCellTest, TheOwnCellIsActiveWhenThePeersModeIsMissing) {
    modes("standby", "active");
    std::filesystem::remove(peerPath);
    EXPECT_THAT(activeCell(), ElementsAre("active cell", "1", "own cell (no " + peerPath + ")"));
}

TEST_F(MoxCellTest, TakesTheModeFilesThatTheVariablesName) {
    root.write("m/local", "standby");
    root.write("m/peer", "x");
    Environment environment{{"CELLID", "1"}, {"REDSUPDUT_LOCAL_REDMODE", "/m/local"}};
    EXPECT_THAT(activeCell(environment), ElementsAre("active cell", "1", "own cell (no " + localPath + ")"));
    environment["REDSUPDUT_PEER_REDMODE"] = "/m/peer";
    EXPECT_THAT(activeCell(environment),
        ElementsAre("active cell", "2",
            "mode files: " + root.path() + "/m/local holds 'standby', " + root.path() + "/m/peer not read"));
}

TEST_F(MoxCellTest, TellsTheReadErrorOfAModeFile) {
    modes("active", "");
    std::filesystem::remove(peerPath);
    std::filesystem::create_directory(peerPath);  // opens, but cannot be read
    Outcome const outcome = ask();
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(row(outcome.out, "active cell"),
        ElementsAre("active cell", "error: /sys/quelto/election_manager/peer_redundancy_mode: Is a directory (EISDIR)",
            "mode files: " + localPath + " holds 'active', " + peerPath + ": Is a directory (EISDIR)"));
    EXPECT_EQ(outcome.err, "mox: active cell: a mode file cannot be read; mend that, or set ACTIVE_CELLID\n");
}

// --- errors ---

TEST_F(MoxCellTest, ABadCellIdLeavesTheOtherFactsAlone) {
    Outcome const outcome = ask({{"CELLID", "7 "}, {"PRODUCT", "box"}});
    std::string const message = "error: CELLID did not contain a valid cell id";
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(row(outcome.out, "cell id"), ElementsAre("cell id", message, "variable CELLID"));
    EXPECT_THAT(row(outcome.out, "active cell"), ElementsAre("active cell", message, "variable CELLID"));
    EXPECT_THAT(row(outcome.out, "product"), ElementsAre("product", "box", "variable PRODUCT"));
    std::string const advice =
        "CELLID is '7 '; set it to a number from 0 to 65535 with nothing behind it, or unset it\n";
    EXPECT_EQ(outcome.err, "mox: cell id: " + advice + "mox: active cell: " + advice);
}

TEST_F(MoxCellTest, ANewlineInTheCellIdFileIsToldWithARemedy) {
    std::string const file = root.write("etc/cellid", "3\n");
    Outcome const outcome = ask({{"ACTIVE_CELLID", "1"}});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(row(outcome.out, "cell id"),
        ElementsAre("cell id", "error: /etc/cellid did not contain a valid cell id", "file " + file));
    EXPECT_EQ(outcome.err, "mox: cell id: " + file +
                               " holds '3\\n'; it must hold a number from 0 to 65535 with nothing behind it, not even "
                               "a newline (write it with printf, not echo)\n");
}

TEST_F(MoxCellTest, AFlagThatIsNeitherTrueNorFalseIsAnError) {
    std::string const file = root.write("etc/electionMgrSupported", "TRUE\n");
    Outcome const outcome = ask({{"CPUBMCMODE", "true"}});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(row(outcome.out, "election"),
        ElementsAre("election manager supported", "error: /etc/electionMgrSupported: Invalid argument (EINVAL)",
            "file " + file));
    EXPECT_THAT(row(outcome.out, "CPU"),
        ElementsAre("CPU/BMC mode", "error: CPUBMCMODE: Invalid argument (EINVAL)", "variable CPUBMCMODE"));
    EXPECT_THAT(outcome.err, HasSubstr("mox: CPU/BMC mode: CPUBMCMODE is 'true'; set it to TRUE or FALSE with nothing "
                                       "behind it, or unset it\n"));
}

TEST_F(MoxCellTest, AFileThatCannotBeReadIsAnError) {
    std::string const file = root.path() + "/etc/celltype";
    std::filesystem::create_directories(file);
    Outcome const outcome = ask();
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(row(outcome.out, "cell type"),
        ElementsAre("cell type", "error: /etc/celltype: Is a directory (EISDIR)", "file " + file));
    EXPECT_EQ(outcome.err, "mox: cell type: " + file + " cannot be read; mend that, or set CELLTYPE\n");
}

TEST_F(MoxCellTest, AFileThatCannotBeOpenedIsAnError) {
    std::string const file = root.path() + "/etc/product";
    std::filesystem::create_directories(root.path() + "/etc");
    std::filesystem::create_symlink("product", file);  // a link to itself stops even root
    Outcome const outcome = ask();
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(row(outcome.out, "product"),
        ElementsAre("product", "error: /etc/product: Too many levels of symbolic links (ELOOP)", "file " + file));
    EXPECT_EQ(outcome.err, "mox: product: " + file + " cannot be read; mend that, or set PRODUCT\n");
}

// --- JSON, tracing, options ---

TEST_F(MoxCellTest, JsonTellsValuesAndSources) {
    modes("standby", "active");
    root.write("etc/product", "a\xff\n");
    Outcome const outcome = ask({{"CELLTYPE", "fixed"}, {"CPUBMCMODE", "yes"}}, {"--json"});
    EXPECT_EQ(outcome.code, 1);
    auto const json = nlohmann::json::parse(outcome.out);
    EXPECT_EQ(
        json["cellId"], (nlohmann::json{{"value", 1},
                            {"source", {{"kind", "file"}, {"path", root.path() + "/etc/cellid"}, {"text", "1"}}}}));
    EXPECT_EQ(json["activeCellId"],
        (nlohmann::json{{"value", 2},
            {"source", {{"kind", "modeFiles"}, {"local", {{"file", localPath}, {"found", true}, {"text", "standby"}}},
                           {"peer", {{"file", peerPath}, {"found", true}, {"text", nullptr}}}}}}));
    EXPECT_EQ(json["cellType"], (nlohmann::json{{"value", "fixed"},
                                    {"source", {{"kind", "variable"}, {"name", "CELLTYPE"}, {"text", "fixed"}}}}));
    EXPECT_EQ(json["product"]["value"], "a\xef\xbf\xbd\n");
    EXPECT_EQ(json["cpuBmcMode"]["error"], "CPUBMCMODE: Invalid argument (EINVAL)");
    EXPECT_FALSE(json["cpuBmcMode"].contains("value"));
    EXPECT_EQ(json["electionMgrSupported"]["value"], false);
    EXPECT_EQ(json["electionMgrSupported"]["source"]["kind"], "default");
    EXPECT_EQ(json.size(), 6u);
}

TEST_F(MoxCellTest, JsonTellsTheRedundancyStatus) {
    auto const json = nlohmann::json::parse(ask({{"CELLID", "1"}}, {"--json", "--redundancy-status", "2"}).out);
    EXPECT_EQ(json["activeCellId"],
        (nlohmann::json{
            {"value", 2}, {"source", {{"kind", "redundancyStatus"}, {"path", "/ql/Zendb/cell/1/redundancy/status"}}}}));
}

TEST_F(MoxCellTest, TracesTheResolutionToStandardError) {
    Folder elsewhere;
    std::string const file = elsewhere.path() + "/trace";
    Outcome const outcome = ask({{"ACTIVE_CELLID", "2"}, {"VELTRACEFILE", file}, {"VELTRACE", "Other/1"}}, {"--trace"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_THAT(
        outcome.err, HasSubstr(" Cell/0 /src/Mox/Cell:110 Cell_activeCellId Cell::CellId Cell_activeCellId()\n"));
    EXPECT_THAT(outcome.err, HasSubstr(" Cell/0 /src/Mox/Cell:114 Cell_activeCellId Found active cellId from "
                                       "ACTIVE_CELLID env var\n"));
    EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(MoxCellTest, TracesAsTheEnvironmentSays) {
    Outcome const outcome = ask({{"ACTIVE_CELLID", "2"}, {"VELTRACE", "Cell/0"}}, {"--no-env"});
    EXPECT_THAT(outcome.err, HasSubstr("Did not find active cellId, returning own cellId\n"));
}

TEST_F(MoxCellTest, SaysWhatIsWrongWithAnOption) {
    auto const error = [](std::vector<std::string> const& arguments) {
        Outcome const outcome = mox(arguments);
        EXPECT_EQ(outcome.code, 2);
        EXPECT_EQ(outcome.out, "");
        return outcome.err;
    };
    EXPECT_EQ(error({"cell", "--root", "/nowhere"}), "mox: --root: /nowhere is no folder\n");
    EXPECT_EQ(error({"cell", "--system", "a/b"}), "mox: --system: a/b is no name: it is empty or holds a \"/\"\n");
    EXPECT_EQ(error({"cell", "--redundancy-status", "4294967296"}),
        "mox: --redundancy-status: 4294967296 is neither a number from 0 to 4294967295 nor none\n");
    EXPECT_EQ(error({"cell", "--redundancy-status", ""}),
        "mox: --redundancy-status: '' is neither a number from 0 to 4294967295 nor none\n");
}

// --- the real files ---

// In a mount namespace of its own, the paths that every process uses can be given any content.
TEST(MoxCellOnTheRealFilesTest, ReadsThePathsOfTheMachine) {
    auto const inNamespace = [](std::string const& script) {
        return run({"unshare", "--mount", "--map-root-user", "sh", "-ec", script, "sh", MOX_TOOL_PATH});
    };
    Outcome const allowed = inNamespace("mount -t tmpfs none /etc && mount -t tmpfs none /sys");
    if (allowed.code != 0) GTEST_SKIP() << "no mount namespace here: " << allowed.err;
    Outcome const outcome =
        inNamespace("mount -t tmpfs none /etc; mount -t tmpfs none /sys; printf 2 >/etc/cellid;"
                    "d=/sys/quelto/election_manager; mkdir -p $d; printf active >$d/local_redundancy_mode;"
                    "printf standby >$d/peer_redundancy_mode; printf TRUE >/etc/cpuBmcMode; exec \"$1\" cell");
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.code, 0);
    EXPECT_THAT(row(outcome.out, "cell id"), ElementsAre("cell id", "2", "file /etc/cellid"));
    EXPECT_THAT(row(outcome.out, "active cell"),
        ElementsAre("active cell", "2",
            "mode files: /sys/quelto/election_manager/local_redundancy_mode holds 'active', "
            "/sys/quelto/election_manager/peer_redundancy_mode holds 'standby'"));
    EXPECT_THAT(
        row(outcome.out, "cell type"), ElementsAre("cell type", "generic", "default (no CELLTYPE, no /etc/celltype)"));
    EXPECT_THAT(row(outcome.out, "CPU"), ElementsAre("CPU/BMC mode", "True", "file /etc/cpuBmcMode"));
}

}  // namespace
