#include "RunTool.h"

#include "Vel/describe/GenericIf.h"
#include "Vel/describe/Module.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// Every value type of the libraries, also those that come later, goes through the tool without code of its own.
namespace {

using namespace ToolTest;

std::vector<Vel::VelType> valueTypes() {
    std::vector<Vel::VelType> types = Vel::Registry::types();
    std::erase_if(types, [](Vel::VelType const& type) { return type.isEntity(); });
    return types;
}

std::string hexOf(Vel::GenericValue const& value) {
    Vel::NboAttrLog::Out out;
    value.type().glue().write(out, value.data());
    std::string hex;
    for (unsigned char const byte : out.bytes())
        hex += (hex.empty() ? "" : " ") + std::string(Vel::format("%02x", byte).view());
    return hex;
}

std::string entry(Outcome const& outcome, std::string const& label) {
    auto const columns = row(outcome.out, label);
    return columns.size() > 1 ? columns[1] : "";
}

TEST(MoxEveryTypeTest, TheTextOfADefaultValueReadsBack) {
    ASSERT_FALSE(valueTypes().empty());
    for (Vel::VelType const& type : valueTypes()) {
        if (std::string_view(type.name()) == "Mox::IdSet") continue;  // its text does not tell its size
        Vel::GenericValue const value(type);
        Outcome const outcome = mox({"value", "--type", type.name(), value.strep().stdString()});
        EXPECT_EQ(outcome.code, 0) << type.name() << ": " << outcome.err;
        EXPECT_EQ(entry(outcome, "text"), value.strep().stdString()) << type.name();
        EXPECT_EQ(entry(outcome, "bytes"), hexOf(value)) << type.name();
    }
}

TEST(MoxEveryTypeTest, TheBytesOfADefaultValueReadBack) {
    ASSERT_FALSE(valueTypes().empty());
    for (Vel::VelType const& type : valueTypes()) {
        Vel::GenericValue const value(type);
        Outcome const outcome = mox({"value", "--type", type.name(), "--hex", hexOf(value)});
        EXPECT_EQ(outcome.code, 0) << type.name() << ": " << outcome.err;
        EXPECT_EQ(entry(outcome, "text"), value.strep().stdString()) << type.name();
    }
}

TEST(MoxEveryTypeTest, EveryTypeHasItsReport) {
    for (Vel::VelType const& type : Vel::Registry::types()) {
        Outcome const outcome = mox({"types", type.name()});
        EXPECT_EQ(outcome.code, 0) << type.name() << ": " << outcome.err;
        EXPECT_EQ(entry(outcome, "type"), type.name());
    }
}

}  // namespace
