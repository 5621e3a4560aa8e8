#include "Allocations.h"
#include "ValueTest.h"

#include "Vel/base/Exception.h"
#include "Vel/describe/Module.h"
#include "test/Vel/text/GuardedText.h"

#include <gtest/gtest.h>

#include <charconv>
#include <fstream>
#include <set>
#include <string>
#include <vector>

// golden.tsv says what goes over the wire and into logs for values of every type. It is written by hand: a change that
// makes a line fail breaks whoever reads what older programs wrote.
namespace {

struct Row {
    unsigned line = 0;
    std::string type, hex, text;
    bool textIsWhole = true;  // the bytes can be had from the text
};

std::vector<Row> readRows() {
    std::ifstream file(MOX_SOURCE_DIR "/test/Mox/golden.tsv");
    std::vector<Row> rows;
    Row row;
    for (std::string line; std::getline(file, line);) {
        ++row.line;
        if (line.starts_with('#')) continue;
        auto const first = line.find('\t');
        auto const second = line.find('\t', first + 1);
        if (second == std::string::npos) throw std::runtime_error("golden.tsv: bad line " + std::to_string(row.line));
        row.type = line.substr(0, first);
        row.textIsWhole = !row.type.ends_with('*');
        if (!row.textIsWhole) row.type.pop_back();
        row.hex = line.substr(first + 1, second - first - 1);
        row.text = line.substr(second + 1);
        rows.push_back(row);
    }
    return rows;
}

class GoldenTest : public testing::Test {
protected:
    // Calls check(type, row) for every row whose type is registered.
    template <class F> static void forEachRow(F check) {
        auto const rows = readRows();
        EXPECT_FALSE(rows.empty());
        for (Row const& row : rows) {
            SCOPED_TRACE("golden.tsv:" + std::to_string(row.line) + ": " + row.type + " " + row.text);
            auto const type = Vel::Registry::type(row.type);
            EXPECT_TRUE(type) << "no module defines this type";
            if (!type) continue;
            try {
                check(type, row);
            } catch (std::exception const& error) {
                ADD_FAILURE() << error.what();
            }
        }
    }
    static std::string hexOfValue(Vel::GenericValue const& value) {
        Vel::NboAttrLog::Out out;
        value.type().glue().write(out, value.data());
        return hexOf(out.bytes());
    }
};

TEST_F(GoldenTest, TextsGiveTheirBytes) {
    forEachRow([](Vel::VelType type, Row const& row) {
        if (!row.textIsWhole) return;
        Vel::GenericValue const value(type, row.text);
        EXPECT_EQ(hexOfValue(value), row.hex);
        EXPECT_EQ(value.attrLogSize(), row.hex.size() / 2);
        EXPECT_EQ(value.strep(), row.text);
    });
}

TEST_F(GoldenTest, BytesGiveTheirTexts) {
    forEachRow([](Vel::VelType type, Row const& row) {
        auto const bytes = bytesOf(row.hex);
        Vel::NboAttrLog::In in(bytes);
        Vel::GenericValue const value(type, in);
        EXPECT_EQ(in.left(), 0u);
        EXPECT_EQ(value.strep(), row.text);
        EXPECT_EQ(hexOfValue(value), row.hex);
    });
}

TEST_F(GoldenTest, EveryShorterInputIsRefused) {
    forEachRow([](Vel::VelType type, Row const& row) {
        auto const bytes = bytesOf(row.hex);
        for (std::size_t size = 0; size < bytes.size(); ++size) {
            Vel::NboAttrLog::In in(std::span<Vel::U8 const>(bytes).first(size));
            EXPECT_THROW(Vel::GenericValue(type, in), Vel::StreamException) << size;
        }
    });
}

TEST_F(GoldenTest, EveryTextWithMoreBehindItIsRefused) {
    forEachRow([](Vel::VelType type, Row const& row) {
        if (!row.textIsWhole) return;
        EXPECT_THROW(Vel::GenericValue(type, row.text + " "), Vel::RangeException);
        EXPECT_THROW(Vel::GenericValue(type, " " + row.text), Vel::RangeException);
        EXPECT_THROW(Vel::GenericValue(type, row.text + ")"), Vel::RangeException);
    });
}

// --- texts that are no Vel::String ---

TEST_F(GoldenTest, TextsOfEveryKindAreTheSame) {
    forEachRow([](Vel::VelType type, Row const& row) {
        if (!row.textIsWhole) return;
        EXPECT_EQ(Vel::GenericValue(type, std::string_view(row.text)).strep(), row.text);
        EXPECT_EQ(Vel::GenericValue(type, row.text.c_str()).strep(), row.text);
        EXPECT_EQ(Vel::GenericValue(type, row.text).strep(), row.text);
        EXPECT_EQ(Vel::GenericValue(type, Vel::String(row.text)).strep(), row.text);
        Vel::GenericValue value(type);
        type.glue().genericIfStrepToValue(value.data(), row.text, type);
        EXPECT_EQ(value.strep(), row.text);
        EXPECT_THROW(Vel::GenericValue(type, row.text + '\0'), Vel::RangeException);
    });
}

TEST_F(GoldenTest, TextsAreReadNoFurtherThanTheirEnd) {
    forEachRow([](Vel::VelType type, Row const& row) {
        if (!row.textIsWhole) return;
        for (auto const at : {GuardedText::At::begin, GuardedText::At::end}) {
            GuardedText const text(row.text, at);
            EXPECT_EQ(Vel::GenericValue(type, text.view()).strep(), row.text);
        }
        for (std::size_t size = 0; size < row.text.size(); ++size) {  // what is cut off is refused, or another value
            GuardedText const text(std::string_view(row.text).substr(0, size));
            try {
                EXPECT_EQ(Vel::GenericValue(type, text.view()).strep(), text.view());
            } catch (Vel::RangeException const&) {}
        }
    });
}

TEST_F(GoldenTest, ErrorsOfViewsAreThoseOfStrings) {
    auto const errorOf = [](auto make) -> std::string {
        try {
            make();
        } catch (Vel::RangeException const& error) {
            return error.what();
        }
        return "accepted";
    };
    forEachRow([&](Vel::VelType type, Row const& row) {
        for (std::size_t i = 0; i <= row.text.size(); ++i) {
            std::string damaged = row.text;
            damaged.insert(i, 1, '~');
            GuardedText const text(damaged);
            EXPECT_EQ(errorOf([&] { Vel::GenericValue(type, text.view()); }),
                errorOf([&] { Vel::GenericValue(type, Vel::String(damaged)); }));
        }
    });
}

TEST_F(GoldenTest, TextsAreWrittenToTheCallersMemory) {
    forEachRow([](Vel::VelType type, Row const& row) {
        auto const bytes = bytesOf(row.hex);
        Vel::NboAttrLog::In in(bytes);
        Vel::GenericValue const value(type, in);
        for (std::size_t size = 0; size <= row.text.size() + 130; ++size) {
            GuardedText const room(std::string(size, '#'));
            auto const [end, error] = value.toChars(room.begin(), room.end());
            if (size < row.text.size()) {
                EXPECT_EQ(error, std::errc::value_too_large) << size;
                EXPECT_EQ(end, room.end());
            } else {
                EXPECT_EQ(error, std::errc()) << size;
                EXPECT_EQ(std::string_view(room.begin(), static_cast<std::size_t>(end - room.begin())), row.text);
            }
        }
    });
}

TEST_F(GoldenTest, NumbersAndFlagsNeedNoMemory) {
    if (!ALLOCATIONS_ARE_COUNTED) GTEST_SKIP() << "the sanitizer's allocator is not counted";
    forEachRow([](Vel::VelType type, Row const& row) {
        if (!row.textIsWhole || !type.hasFixedEncodedSize() || row.type == "Mox::IdSet") return;
        Vel::GenericValue value(type);
        char text[512];
        EXPECT_EQ(allocationsOf([&] {
            type.glue().genericIfTextToValue(value.data(), row.text, type);
            value.toChars(text, text + sizeof text);
        }),
            0u);
    });
}

TEST_F(GoldenTest, EveryValueTypeIsListed) {
    std::set<std::string> listed;
    for (Row const& row : readRows()) listed.insert(row.type);
    auto const isTests = [](Vel::String const& module) { return module == "Simulation" || module == "Ports"; };
    for (Vel::VelType const type : Vel::Registry::types())
        if (!type.isEntity() && !isTests(type.moduleName())) {
            EXPECT_TRUE(listed.contains(type.name())) << "add to golden.tsv: " << type.name();
        }
}

}  // namespace
