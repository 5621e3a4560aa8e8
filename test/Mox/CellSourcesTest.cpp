#include "CellTest.h"

namespace {

using namespace std::string_literals;
using Calls = std::vector<std::string>;

std::string const badVariable = "CELLID did not contain a valid cell id";
std::string const badFile = "/etc/cellid did not contain a valid cell id";

class CellSourcesTest : public CellTest {};

// --- cell id ---

TEST_F(CellSourcesTest, CellIdIs42WithoutVariableAndFile) {
    EXPECT_EQ(Cell::cellId(), 42u);
    EXPECT_EQ(world.takeCalls(), (Calls{"getenv CELLID", "open /etc/cellid"}));
}

TEST_F(CellSourcesTest, CellIdIsReadAsTheCLibraryReadsNumbersInBaseZero) {
    for (auto const& [text, id] : std::map<std::string, Vel::U32>{{"1", 1}, {"0x10", 16}, {"0X1f", 31}, {"010", 8},
             {" 7", 7}, {"\t\n 7", 7}, {"+9", 9}, {"65535", 65535}, {"0xffff", 65535}, {"0177777", 65535},
             {"00000000000000000000000000000001", 1}}) {
        Vel::globalDir()->entryDelAll();
        world.environment = {{"CELLID", text}};
        EXPECT_EQ(Cell::cellId(), id) << text;
        Vel::globalDir()->entryDelAll();
        world.environment.clear();
        world.files["/etc/cellid"].content = text;
        EXPECT_EQ(Cell::cellId(), id) << text;
    }
}

TEST_F(CellSourcesTest, CellIdThatIsNoNumberInRangeIsRefused) {
    for (auto const& text :
        {"", " ", "7 ", "7\n", "-1", "-65535", "65536", "0x10000", "4294967297", "18446744073709551617",
            "99999999999999999999999999", "-99999999999999999999", "abc", "7x", "0x", "08", "7.0", "1,2"}) {
        world.environment = {{"CELLID", text}};
        EXPECT_EQ(textOf<Vel::RangeException>([] { Cell::cellId(); }), badVariable) << text;
        world.environment.clear();
        world.files["/etc/cellid"].content = text;
        EXPECT_EQ(textOf<Vel::RangeException>([] { Cell::cellId(); }), badFile) << text;
    }
}

TEST_F(CellSourcesTest, CellIdOfTheVariableLeavesTheFileAlone) {
    world.files["/etc/cellid"].content = "3";
    world.environment["CELLID"] = "2";
    EXPECT_EQ(Cell::cellId(), 2u);
    EXPECT_EQ(world.takeCalls(), Calls{"getenv CELLID"});
}

TEST_F(CellSourcesTest, InvalidVariableIsNotReplacedByTheFile) {
    world.files["/etc/cellid"].content = "3";
    world.environment["CELLID"] = "x";
    EXPECT_EQ(textOf<Vel::RangeException>([] { Cell::cellId(); }), badVariable);
    EXPECT_EQ(world.takeCalls(), Calls{"getenv CELLID"});
}

TEST_F(CellSourcesTest, CellIdOfTheFileTakesOneReadOf32Bytes) {
    world.files["/etc/cellid"].content = "3";
    EXPECT_EQ(Cell::cellId(), 3u);
    EXPECT_EQ(
        world.takeCalls(), (Calls{"getenv CELLID", "open /etc/cellid", "read /etc/cellid 32", "close /etc/cellid"}));
}

TEST_F(CellSourcesTest, BytesBehindThe32ndAreNotSeen) {
    world.files["/etc/cellid"].content = std::string(30, ' ') + "7" + std::string(" and more");
    EXPECT_EQ(textOf<Vel::RangeException>([] { Cell::cellId(); }), badFile);
    world.files["/etc/cellid"].content = std::string(31, '0') + "7" + "999";
    EXPECT_EQ(Cell::cellId(), 7u);
}

TEST_F(CellSourcesTest, NulInTheCellIdFileIsRefused) {
    for (auto const& content : {"3\0"s, "3\0004"s, "\0003"s, "\0"s}) {
        world.files["/etc/cellid"].content = content;
        EXPECT_EQ(textOf<Vel::RangeException>([] { Cell::cellId(); }), badFile);
    }
}

TEST_F(CellSourcesTest, InterruptedReadsAreRepeated) {
    world.files["/etc/cellid"] = {"3", 0, 0, 3};
    EXPECT_EQ(Cell::cellId(), 3u);
    std::string const read = "read /etc/cellid 32";
    EXPECT_EQ(
        world.takeCalls(), (Calls{"getenv CELLID", "open /etc/cellid", read, read, read, read, "close /etc/cellid"}));
}

TEST_F(CellSourcesTest, FailedReadThrowsItsErrnoAndClosesTheFile) {
    for (int const error : {EIO, EISDIR, EAGAIN}) {
        world.files["/etc/cellid"] = {"3", 0, error, 1};
        EXPECT_EQ(errnoOf([] { Cell::cellId(); }), error);
        EXPECT_EQ(world.openFiles(), Calls());
    }
}

TEST_F(CellSourcesTest, FailedOpenThrowsItsErrnoUnlessTheFileDoesNotExist) {
    for (int const error : {EACCES, EMFILE, ENOTDIR, EINTR}) {
        world.files["/etc/cellid"] = {"3", error, 0, 0};
        EXPECT_EQ(errnoOf([] { Cell::cellId(); }), error);
    }
    world.files["/etc/cellid"].openError = ENOENT;
    EXPECT_EQ(Cell::cellId(), 42u);
}

TEST_F(CellSourcesTest, SystemErrorsNameTheFile) {
    world.files["/etc/cellid"].openError = EACCES;
    EXPECT_EQ(textOf<Vel::ErrnoException>([] { Cell::cellId(); }), "/etc/cellid: Permission denied (EACCES)");
    world.files["/etc/product"].readError = EIO;
    EXPECT_EQ(textOf<Vel::ErrnoException>([] { Cell::product(); }), "/etc/product: Input/output error (EIO)");
}

TEST_F(CellSourcesTest, CellIdIsReadOnce) {
    world.files["/etc/cellid"].content = "3";
    EXPECT_EQ(Cell::cellId(), 3u);
    world.takeCalls();
    world.files["/etc/cellid"].content = "4";
    EXPECT_EQ(Cell::cellId(), 3u);
    EXPECT_EQ(world.takeCalls(), Calls());
}

TEST_F(CellSourcesTest, CellIdZeroIsReadAgainOnEveryCall) {
    world.files["/etc/cellid"].content = "0";
    EXPECT_EQ(Cell::cellId(), 0u);
    EXPECT_EQ(Cell::cellId(), 0u);
    EXPECT_EQ(std::ranges::count(world.takeCalls(), "read /etc/cellid 32"), 2);
    world.files["/etc/cellid"].content = "4";
    EXPECT_EQ(Cell::cellId(), 4u);
}

TEST_F(CellSourcesTest, NothingIsCachedWhenAReaderThrows) {
    world.files["/etc/cellid"].content = "3\n";
    EXPECT_EQ(textOf<Vel::RangeException>([] { Cell::cellId(); }), badFile);
    world.files["/etc/cellid"].content = "3";
    EXPECT_EQ(Cell::cellId(), 3u);
}

// --- texts ---

struct TextFact {
    char const* variable;
    char const* file;
    Vel::String (*read)();
};
void PrintTo(TextFact const& fact, std::ostream* out) { *out << fact.variable; }

class CellTextTest : public CellTest, public testing::WithParamInterface<TextFact> {
protected:
    std::string read() const { return GetParam().read().stdString(); }
    FakeSystem::File& file() { return world.files[GetParam().file]; }
};

INSTANTIATE_TEST_SUITE_P(Facts, CellTextTest,
    testing::Values(
        TextFact{"CELLTYPE", "/etc/celltype", &Cell::cellType}, TextFact{"PRODUCT", "/etc/product", &Cell::product}),
    [](auto const& info) { return std::string(info.param.variable); });

TEST_P(CellTextTest, IsGenericWithoutVariableAndFile) {
    EXPECT_EQ(read(), "generic");
    EXPECT_EQ(world.takeCalls(), (Calls{"getenv "s + GetParam().variable, "open "s + GetParam().file}));
}

TEST_P(CellTextTest, IsTheWholeVariableUnchanged) {
    file().content = "file";
    std::string const value = " a variable of more than 32 bytes, and a newline\n";
    world.environment[GetParam().variable] = value;
    EXPECT_EQ(read(), value);
    EXPECT_EQ(world.takeCalls(), Calls{"getenv "s + GetParam().variable});
}

TEST_P(CellTextTest, IsTheFileAsItStands) {
    file().content = " supervisor\n";
    EXPECT_EQ(read(), " supervisor\n");
}

TEST_P(CellTextTest, IsTheFirst32BytesOfALongFile) {
    file().content = "0123456789012345678901234567890123456789";
    EXPECT_EQ(read(), "01234567890123456789012345678901");
    EXPECT_EQ(world.takeCalls(), (Calls{"getenv "s + GetParam().variable, "open "s + GetParam().file,
                                     "read "s + GetParam().file + " 32", "close "s + GetParam().file}));
}

TEST_P(CellTextTest, EndsAtTheFirstNulOfTheFile) {
    file().content = "ab\0cd"s;
    EXPECT_EQ(read(), "ab");
}

TEST_P(CellTextTest, IsReadOnce) {
    file().content = "first";
    EXPECT_EQ(read(), "first");
    file().content = "second";
    world.environment[GetParam().variable] = "third";
    world.takeCalls();
    EXPECT_EQ(read(), "first");
    EXPECT_EQ(world.takeCalls(), Calls());
}

TEST_P(CellTextTest, EmptyTextIsReadAgainOnEveryCall) {
    world.environment[GetParam().variable] = "";
    EXPECT_EQ(read(), "");
    world.environment.clear();
    file().content = "";
    EXPECT_EQ(read(), "");
    file().content = "\0x"s;
    EXPECT_EQ(read(), "");
    file().content = "now";
    EXPECT_EQ(read(), "now");
}

TEST_P(CellTextTest, FailedOpenThrowsItsErrno) {
    file().openError = EACCES;
    EXPECT_EQ(errnoOf([this] { read(); }), EACCES);
    file().openError = 0;
    file().content = "now";
    EXPECT_EQ(read(), "now");
}

TEST_P(CellTextTest, FailedReadThrowsItsErrnoAndClosesTheFile) {
    file() = {"x", 0, EISDIR, 2};
    EXPECT_EQ(errnoOf([this] { read(); }), EISDIR);
    EXPECT_EQ(world.openFiles(), Calls());
    EXPECT_EQ(std::ranges::count(world.takeCalls(), "read "s + GetParam().file + " 32"), 3);
    file().readError = 0;
    EXPECT_EQ(read(), "x");
}

// --- flags ---

struct FlagFact {
    char const* variable;
    char const* file;
    bool (*read)();
    bool (Cell::Status::*initialized)() const;
};
void PrintTo(FlagFact const& fact, std::ostream* out) { *out << fact.variable; }

class CellFlagTest : public CellTest, public testing::WithParamInterface<FlagFact> {
protected:
    static bool read() { return GetParam().read(); }
    static bool isInitialized() { return (*status().*GetParam().initialized)(); }
    FakeSystem::File& file() { return world.files[GetParam().file]; }
    std::string& variable() { return world.environment[GetParam().variable]; }
};

INSTANTIATE_TEST_SUITE_P(Facts, CellFlagTest,
    testing::Values(FlagFact{"ELECTIONMGRSUPPORTED", "/etc/electionMgrSupported", &Cell::electionMgrSupported,
                        &Cell::Status::electionMgrSupportedInitialized},
        FlagFact{"CPUBMCMODE", "/etc/cpuBmcMode", &Cell::cpuBmcMode, &Cell::Status::cpuBmcModeInitialized}),
    [](auto const& info) { return std::string(info.param.variable); });

TEST_P(CellFlagTest, IsFalseWithoutVariableAndFile) {
    EXPECT_FALSE(read());
    EXPECT_TRUE(isInitialized());
    EXPECT_EQ(world.takeCalls(), (Calls{"getenv "s + GetParam().variable, "open "s + GetParam().file}));
}

TEST_P(CellFlagTest, IsWhatTheVariableSays) {
    file().content = "FALSE";
    variable() = "TRUE";
    EXPECT_TRUE(read());
    Vel::globalDir()->entryDelAll();
    file().content = "TRUE";
    variable() = "FALSE";
    world.takeCalls();
    EXPECT_FALSE(read());
    EXPECT_EQ(world.takeCalls(), Calls{"getenv "s + GetParam().variable});
}

TEST_P(CellFlagTest, IsWhatTheFileSays) {
    file().content = "TRUE";
    EXPECT_TRUE(read());
    EXPECT_EQ(world.takeCalls(), (Calls{"getenv "s + GetParam().variable, "open "s + GetParam().file,
                                     "read "s + GetParam().file + " 32", "close "s + GetParam().file}));
    Vel::globalDir()->entryDelAll();
    file().content = "FALSE\0\n"s;
    EXPECT_FALSE(read());
}

TEST_P(CellFlagTest, AnythingButTrueOrFalseIsAnInvalidArgument) {
    for (auto const& text :
        {"", "true", "false", "True", "TRUE ", " TRUE", "TRUE\n", "FALSE\n", "TRU", "TRUEFALSE", "1", "0", "YES"}) {
        world.environment = {{GetParam().variable, text}};
        EXPECT_EQ(errnoOf([] { read(); }), EINVAL) << text;
        EXPECT_FALSE(isInitialized()) << text;
        world.environment.clear();
        file().content = text;
        EXPECT_EQ(errnoOf([] { read(); }), EINVAL) << text;
        EXPECT_FALSE(isInitialized()) << text;
        EXPECT_EQ(world.openFiles(), Calls()) << text;
    }
}

TEST_P(CellFlagTest, InvalidVariableIsNotReplacedByTheFile) {
    file().content = "TRUE";
    variable() = "true";
    world.takeCalls();
    EXPECT_EQ(errnoOf([] { read(); }), EINVAL);
    EXPECT_EQ(world.takeCalls(), Calls{"getenv "s + GetParam().variable});
}

TEST_P(CellFlagTest, FalseIsCachedLikeTrue) {
    variable() = "FALSE";
    EXPECT_FALSE(read());
    EXPECT_TRUE(isInitialized());
    variable() = "TRUE";
    world.takeCalls();
    EXPECT_FALSE(read());
    EXPECT_EQ(world.takeCalls(), Calls());
}

TEST_P(CellFlagTest, FailedOpenThrowsItsErrnoAndCachesNothing) {
    file().openError = EACCES;
    EXPECT_EQ(errnoOf([] { read(); }), EACCES);
    EXPECT_FALSE(isInitialized());
    file() = {"TRUE", 0, 0, 0};
    EXPECT_TRUE(read());
}

TEST_P(CellFlagTest, FailedReadThrowsItsErrnoClosesTheFileAndCachesNothing) {
    file() = {"TRUE", 0, EIO, 2};
    EXPECT_EQ(errnoOf([] { read(); }), EIO);
    EXPECT_EQ(world.openFiles(), Calls());
    EXPECT_FALSE(isInitialized());
    file() = {"TRUE", 0, 0, 2};
    EXPECT_TRUE(read());
}

// --- all of them ---

TEST_F(CellSourcesTest, LazyReadsNotifyNobody) {
    auto const status = Cell::statusFactory("cell");
    observe(*status);
    world.environment = {{"CELLID", "2"}, {"CELLTYPE", "t"}, {"PRODUCT", "p"}, {"ELECTIONMGRSUPPORTED", "TRUE"},
        {"CPUBMCMODE", "TRUE"}, {"ACTIVE_CELLID", "1"}};
    EXPECT_EQ(status->cellId(), 2);
    EXPECT_EQ(status->cellType(), "t");
    EXPECT_EQ(status->product(), "p");
    EXPECT_TRUE(status->electionMgrSupported());
    EXPECT_TRUE(status->cpuBmcMode());
    EXPECT_EQ(status->activeCellId(), 1);
    EXPECT_EQ(notified, std::vector<Vel::AttributeId>());
}

TEST_F(CellSourcesTest, MutatorsOverrideWhatWouldBeRead) {
    world.environment = {{"CELLID", "2"}, {"CELLTYPE", "t"}, {"PRODUCT", "p"}, {"ELECTIONMGRSUPPORTED", "FALSE"}};
    auto const status = Cell::statusFactory("cell");
    status->cellIdIs(9);
    status->cellTypeIs("mine");
    status->productIs("also mine");
    status->electionMgrSupportedIs(true);
    status->electionMgrSupportedInitializedIs(true);
    EXPECT_EQ(status->cellId(), 9);
    EXPECT_EQ(status->cellType(), "mine");
    EXPECT_EQ(status->product(), "also mine");
    EXPECT_TRUE(status->electionMgrSupported());
    EXPECT_EQ(world.takeCalls(), Calls());
}

TEST_F(CellSourcesTest, FlagThatIsNotInitializedIsReadOverWhatWasSet) {
    auto const status = Cell::statusFactory("cell");
    status->cpuBmcModeIs(true);
    EXPECT_FALSE(status->cpuBmcMode());
    EXPECT_TRUE(status->cpuBmcModeInitialized());
}

}  // namespace
