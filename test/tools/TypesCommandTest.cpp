#include "RunTool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using namespace ToolTest;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

TEST(MoxTypesTest, ListsModulesWithFingerprintAndTypes) {
    Outcome const outcome = mox({"types"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_THAT(row(outcome.out, "Seqno"), ElementsAre("Seqno", "b10c04b51b44f4ab"));
    EXPECT_THAT(row(outcome.out, "  Vel::String"), ElementsAre("", "Vel::String", "scalar", "at least 4 bytes"));
    EXPECT_THAT(row(outcome.out, "  Cell::Status"), ElementsAre("", "Cell::Status", "entity"));
}

TEST(MoxTypesTest, ShowsOneModule) {
    Outcome const outcome = mox({"types", "Seqno"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.out, "Seqno           b10c04b51b44f4ab\n"
                           "  Mox::Seqno16  bare number  2 bytes\n"
                           "  Mox::Seqno32  bare number  4 bytes\n");
}

TEST(MoxTypesTest, ShowsAnEntityWithItsAttributes) {
    Outcome const outcome = mox({"types", "Redundancy::RedundancyStatus"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_THAT(row(outcome.out, "type"), ElementsAre("type", "Redundancy::RedundancyStatus"));
    EXPECT_THAT(row(outcome.out, "kind"), ElementsAre("kind", "entity"));
    EXPECT_THAT(row(outcome.out, "base"), ElementsAre("base", "Vel::Entity"));
    EXPECT_THAT(row(outcome.out, "text form"), ElementsAre("text form", "-"));
    EXPECT_THAT(outcome.out, EndsWith("\n\n  id   attribute     kind       type  operations\n"
                                      "  258  activeCellId  attribute  U32   get, set\n"));
}

TEST(MoxTypesTest, ShowsACollectionByItsKey) {
    Outcome const outcome = mox({"types", "Vel::Dir"});
    EXPECT_THAT(outcome.out, HasSubstr("Vel::Entity by Vel::String"));
}

TEST(MoxTypesTest, ShowsATypeOfALibraryThatItNeverHeardOf) {
    Outcome const outcome = mox({"--module", GAUGE_LIBRARY, "types", "Test::Gauge"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out, "type          Test::Gauge\n"
                           "kind          record\n"
                           "module        Gauge 151e8898ba266406\n"
                           "base          -\n"
                           "text form     Value('Test::Gauge', ** {'level': %u, 'label': %s})\n"
                           "encoded size  at least 8 bytes\n"
                           "hashable      yes\n"
                           "operations    truth, equal\n"
                           "\n"
                           "  id  attribute  kind      type                         operations\n"
                           "  2   level      field     U32                          get, set\n"
                           "  3   label      field     Vel::String                  get, set\n"
                           "  4   part       derived   U32                          get\n"
                           "  5   limit      constant  U32                          get\n"
                           "  6   raise      method    (U16 by, bool twice) -> U32  call\n");
}

TEST(MoxTypesTest, JsonHoldsTheWholeType) {
    auto const json = nlohmann::json::parse(mox({"--module", GAUGE_LIBRARY, "types", "Test::Gauge", "--json"}).out);
    EXPECT_EQ(json["kind"], "record");
    EXPECT_EQ(json["module"], "Gauge");
    EXPECT_EQ(json["base"], nullptr);
    EXPECT_EQ(json["template"], "Value('Test::Gauge', ** {'level': %u, 'label': %s})");
    EXPECT_EQ(json["encodedSize"], 8);
    EXPECT_EQ(json["fixedEncodedSize"], false);
    EXPECT_EQ(json["hashable"], true);
    EXPECT_EQ(json["operations"], (nlohmann::json{"truth", "equal"}));
    EXPECT_EQ(json["attributes"].size(), 5u);
    EXPECT_EQ(json["attributes"][4],
        (nlohmann::json{{"id", 6}, {"name", "raise"}, {"kind", "method"}, {"type", nullptr}, {"keyType", nullptr},
            {"resultType", "U32"}, {"operations", {"call"}},
            {"parameters", {{{"name", "by"}, {"type", "U16"}}, {{"name", "twice"}, {"type", "bool"}}}}}));
}

TEST(MoxTypesTest, JsonListsAllModules) {
    auto const json = nlohmann::json::parse(mox({"types", "--json"}).out);
    EXPECT_EQ(json["refused"], nlohmann::json::array());
    bool found = false;
    for (auto const& module : json["modules"])
        if (module["name"] == "Seqno") {
            found = true;
            EXPECT_EQ(module["fingerprint"], "b10c04b51b44f4ab");
            EXPECT_EQ(module["types"][1]["name"], "Mox::Seqno32");
        }
    EXPECT_TRUE(found);
}

TEST(MoxTypesTest, NamesTheNearestForAnUnknownName) {
    auto const error = [](std::string const& name) {
        Outcome const outcome = mox({"types", name});
        EXPECT_EQ(outcome.code, 2);
        EXPECT_EQ(outcome.out, "");
        return outcome.err;
    };
    EXPECT_EQ(error("Cell::Statsu"), "mox: there is no type or module Cell::Statsu; did you mean Cell::Status?\n");
    EXPECT_EQ(error("cellid"), "mox: there is no type or module cellid; did you mean Cell::CellId?\n");
    EXPECT_EQ(error("Qwertz"), "mox: there is no type or module Qwertz; \"mox types\" lists all\n");
    EXPECT_EQ(error("a\x1b[31m"), "mox: there is no type or module 'a\\x1b[31m'; \"mox types\" lists all\n");
}

TEST(MoxTypesTest, WarnsOfARefusedModule) {
    Outcome const outcome = mox({"--module", CLASH_LIBRARY, "types", "Seqno"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(outcome.out, HasSubstr("Mox::Seqno16"));
    EXPECT_THAT(outcome.err, HasSubstr("Clash is refused: it defines the type Cell::CellId, which module Cell defines "
                                       "too\n"));
    EXPECT_THAT(outcome.err, EndsWith("mox: warning: 1 module is refused (see above); the types that only they define "
                                      "are missing here\n"));
}

TEST(MoxTypesTest, JsonTellsTheRefusal) {
    auto const json = nlohmann::json::parse(mox({"--module", CLASH_LIBRARY, "types", "--json"}).out);
    EXPECT_EQ(json["refused"], (nlohmann::json{{{"module", "Clash"},
                                   {"reason", "it defines the type Cell::CellId, which module Cell defines too"}}}));
}

TEST(MoxModuleTest, MayStandBehindTheCommandAndSeveralTimes) {
    Outcome const outcome = mox({"types", "--module", GAUGE_LIBRARY, "--module", CLASH_LIBRARY, "Gauge"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(outcome.out, HasSubstr("Test::Fragile"));
}

TEST(MoxModuleTest, SaysWhyALibraryCannotBeLoaded) {
    Outcome const outcome = mox({"--module", "/nowhere/lib.so", "types"});
    EXPECT_EQ(outcome.code, 2);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.err, "mox: --module: cannot load /nowhere/lib.so: cannot open shared object file: No such file "
                           "or directory; it must be a shared library of types built against this Vel\n");
}

TEST(MoxModuleTest, WarnsOfALibraryWithoutTypes) {
    Outcome const outcome = mox({"--module", EMPTY_LIBRARY, "types", "Seqno"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(outcome.out, HasSubstr("Mox::Seqno16"));
    EXPECT_EQ(outcome.err, "mox: --module: " EMPTY_LIBRARY " brings no types: it has no VEL_MODULE, or is loaded "
                           "already\n");
}

}  // namespace
