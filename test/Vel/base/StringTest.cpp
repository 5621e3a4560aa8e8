#include "Vel/base/String.h"

#include "Vel/base/Exception.h"
#include "test/Vel/entity/CollectionTest.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

namespace {

using Vel::String;
using namespace std::string_view_literals;

template <class F> std::string rangeError(F f) {
    try {
        f();
    } catch (Vel::RangeException const& error) {
        return error.what();
    }
    return "nothing was thrown";
}

static_assert(sizeof(String) == sizeof(void*));
static_assert(std::contiguous_iterator<String::IteratorConst>);

TEST(StringTest, NullAndZeroLengthAreBothEmpty) {
    std::array<String, 6> const empties{String(), String(""), String("text", 0),
        String(static_cast<char const*>(nullptr)), String(std::string()), String(std::string_view())};
    for (String const& s : empties) {
        EXPECT_TRUE(s.empty());
        EXPECT_EQ(s.length(), 0u);
        EXPECT_STREQ(s.charPtr(), "");
        EXPECT_EQ(s, String());
        EXPECT_TRUE(s.begin() == s.end());
        EXPECT_TRUE(s.sharesStorageWith(String()));
    }
}

TEST(StringTest, CopiesShareStorage) {
    String const a("shared");
    String const b(a);
    String c;
    c = a;
    EXPECT_TRUE(b.sharesStorageWith(a));
    EXPECT_TRUE(c.sharesStorageWith(a));
    EXPECT_EQ(b.charPtr(), a.charPtr());
    EXPECT_FALSE(String("shared").sharesStorageWith(a));
}

TEST(StringTest, SharedStorageOutlivesTheFirstOwner) {
    String b;
    {
        String const a("only the copy is left");
        b = a;
    }
    EXPECT_EQ(b, "only the copy is left");
}

TEST(StringTest, MovingTakesTheStorage) {
    String a("moved");
    char const* const storage = a.charPtr();
    String b(std::move(a));
    EXPECT_EQ(b.charPtr(), storage);
    String c("other");
    c = std::move(b);
    EXPECT_EQ(c.charPtr(), storage);
    EXPECT_EQ(c, "moved");
}

TEST(StringTest, SelfAssignmentKeepsTheText) {
    String a("self");
    String& alias = a;
    a = alias;
    EXPECT_EQ(a, "self");
    a = std::move(alias);
    EXPECT_EQ(a, "self");
    a = a.charPtr();
    EXPECT_EQ(a, "self");
    a += a;
    EXPECT_EQ(a, "selfself");
}

TEST(StringTest, AssignmentLeavesOtherHoldersAlone) {
    String a("before");
    String const b(a);
    a = "after";
    EXPECT_EQ(a, "after");
    EXPECT_EQ(b, "before");
    a = static_cast<char const*>(nullptr);
    EXPECT_TRUE(a.empty());
}

TEST(StringTest, KeepsNulBytesInside) {
    String const s("a\0b\0"sv);
    EXPECT_EQ(s.length(), 4u);
    EXPECT_EQ(s.size(), 4u);
    EXPECT_EQ(s[1], '\0');
    EXPECT_EQ(s.view(), "a\0b\0"sv);
    EXPECT_EQ(s.stdString(), std::string("a\0b\0", 4));
    EXPECT_NE(s, "a");
    EXPECT_EQ(s + s, String("a\0b\0a\0b\0"sv));
}

TEST(StringTest, CharPtrEndsWithNul) {
    char const bytes[] = {'a', 'b', 'c', 'd'};
    String const s(bytes, 3);
    EXPECT_EQ(std::strlen(s.charPtr()), 3u);
    EXPECT_EQ(s.data(), s.charPtr());
}

TEST(StringTest, CopiesAWritableBuffer) {
    char buffer[] = "buffer";
    char* const pointer = buffer;
    String const s(buffer);
    String const t(pointer);
    buffer[0] = 'B';
    EXPECT_EQ(s, "buffer");
    EXPECT_EQ(t, "buffer");
    EXPECT_EQ(String(nullptr), "");
}

TEST(StringTest, ConvertsFromAndToStandardStrings) {
    std::string const text = "standard";
    String const s = text;
    String const t = std::string_view(text).substr(2);
    std::string_view const view = s;
    EXPECT_EQ(s, text);
    EXPECT_EQ(t, "andard");
    EXPECT_EQ(view, "standard");
}

TEST(StringTest, PartOfAnotherString) {
    String const s("0123456789");
    EXPECT_EQ(String(s, 3), "3456789");
    EXPECT_EQ(String(s, 3, 4), "3456");
    EXPECT_EQ(String(s, 3, 0), "");
    EXPECT_EQ(String(s, 8, 100), "89");
    EXPECT_EQ(String(s, 8, String::npos), "89");
    EXPECT_EQ(String(s, 10), "");
    EXPECT_EQ(String(s, 10, 5), "");
    EXPECT_EQ(String(String(), 0), "");
}

TEST(StringTest, TheWholeOfAnotherStringSharesItsStorage) {
    String const s("0123456789");
    EXPECT_TRUE(String(s, 0).sharesStorageWith(s));
    EXPECT_TRUE(String(s, 0, 10).sharesStorageWith(s));
    EXPECT_FALSE(String(s, 0, 9).sharesStorageWith(s));
}

TEST(StringTest, PartFromBeyondTheEndThrows) {
    EXPECT_EQ(rangeError([] { String(String("0123456789"), 11); }), "position 11 is beyond a string of 10 bytes");
    EXPECT_EQ(rangeError([] { String(String(), 1, 0); }), "position 1 is beyond a string of 0 bytes");
    EXPECT_EQ(rangeError([] { String(String("a"), String::npos); }),
        "position 18446744073709551615 is beyond a string of 1 bytes");
}

TEST(StringTest, FromOneIteratorUpToTheEndOfItsString) {
    String const s("ab\0cd"sv);
    EXPECT_EQ(String(s.begin()), s);
    EXPECT_EQ(String(s.begin() + 1), String("b\0cd"sv));
    EXPECT_EQ(String(s.end()), "");
    EXPECT_EQ(String(String().begin()), "");
    EXPECT_EQ(String(String::IteratorConst()), "");
}

TEST(StringTest, FromTwoIterators) {
    String const s("0123456789");
    EXPECT_EQ(String(s.begin(), s.end()), s);
    EXPECT_EQ(String(s.begin() + 2, s.begin() + 5), "234");
    EXPECT_EQ(String(s.begin() + 5, s.begin() + 5), "");
    EXPECT_EQ(String(String().begin(), String().end()), "");
}

TEST(StringTest, TooLongATextThrowsBeforeItIsRead) {
    EXPECT_EQ(rangeError([] { String("short", 0xFFFFFFF1u); }),
        "a string of 4294967281 bytes exceeds the limit of 4294967280");
    String const s("ab");
    EXPECT_EQ(rangeError([&] { String(s.end(), s.begin()); }),
        "a string of 18446744073709551614 bytes exceeds the limit of 4294967280");
}

TEST(StringTest, WithLengthIsWrittenInPlace) {
    String const s = String::withLength(3, [](char* to) { std::memcpy(to, "xyz", 3); });
    EXPECT_EQ(s, "xyz");
    EXPECT_EQ(s.charPtr()[3], '\0');
    bool called = false;
    EXPECT_TRUE(String::withLength(0, [&](char*) { called = true; }).empty());
    EXPECT_FALSE(called);
}

TEST(StringTest, Concatenates) {
    String const a("a");
    EXPECT_EQ(a + String("bc"), "abc");
    EXPECT_EQ(a + "bc", "abc");
    EXPECT_EQ("bc" + a, "bca");
    EXPECT_EQ(static_cast<char const*>(nullptr) + a, "a");
    String s("x");
    s += "yz";
    s += a;
    s += static_cast<char const*>(nullptr);
    EXPECT_EQ(s, "xyza");
}

TEST(StringTest, ConcatenationWithTheEmptyStringSharesStorage) {
    String const a("a");
    EXPECT_TRUE((a + String()).sharesStorageWith(a));
    EXPECT_TRUE((String() + a).sharesStorageWith(a));
    EXPECT_TRUE(("" + a).sharesStorageWith(a));
    EXPECT_TRUE((String() + String()).empty());
}

TEST(StringTest, FindsAByte) {
    String const s("a/b\0/"sv);
    EXPECT_EQ(s.pos(0, '/'), 1u);
    EXPECT_EQ(s.pos(1, '/'), 1u);
    EXPECT_EQ(s.pos(2, '/'), 4u);
    EXPECT_EQ(s.pos(0, '\0'), 3u);
    EXPECT_EQ(s.pos(5, '/'), String::npos);
    EXPECT_EQ(s.pos(String::npos, '/'), String::npos);
    EXPECT_EQ(s.pos(0, 'z'), String::npos);
    EXPECT_EQ(String().pos(0, 'a'), String::npos);
}

TEST(StringTest, FindsASubstring) {
    String const s("abcabd");
    EXPECT_EQ(s.pos(0, "ab", 2), 0u);
    EXPECT_EQ(s.pos(1, "ab", 2), 3u);
    EXPECT_EQ(s.pos(0, "abd", 3), 3u);
    EXPECT_EQ(s.pos(0, "abde", 3), 3u);  // only the bytes counted are looked for
    EXPECT_EQ(s.pos(0, "abde", 4), String::npos);
    EXPECT_EQ(s.pos(2, "", 0), 2u);
    EXPECT_EQ(s.pos(6, "", 0), 6u);
    EXPECT_EQ(s.pos(7, "", 0), String::npos);
}

TEST(StringTest, ComparesWithEverythingThatIsAText) {
    String const s("text");
    char writable[] = "text";
    EXPECT_TRUE(s == String("text"));
    EXPECT_TRUE(s == "text");
    EXPECT_TRUE("text" == s);
    EXPECT_TRUE(s == writable);
    EXPECT_TRUE(s == static_cast<char*>(writable));
    EXPECT_TRUE(s == "text"sv);
    EXPECT_TRUE("text"sv == s);
    EXPECT_TRUE(s == std::string("text"));
    EXPECT_TRUE(std::string("text") == s);
    EXPECT_FALSE(s == "tex");
    EXPECT_TRUE(s != "texts");
}

TEST(StringTest, ANullPointerComparesAsEmpty) {
    char const* const null = nullptr;
    EXPECT_TRUE(String() == null);
    EXPECT_TRUE(null == String());
    EXPECT_FALSE(String("a") == null);
    EXPECT_TRUE(String("a") > null);
    EXPECT_FALSE(String() < null);
}

TEST(StringTest, OrdersByUnsignedBytesAndThenLength) {
    EXPECT_LT(String("a"), String("b"));
    EXPECT_LT(String("a"), "ab");
    EXPECT_LT(String(), "a");
    EXPECT_LT(String("Z"), "a"sv);
    EXPECT_LT(String("z"), std::string("\x80"));
    EXPECT_LT(String("a\0a"sv), String("a\0b"sv));
    EXPECT_FALSE(String("a") < String("a"));
    EXPECT_TRUE((String("a") <=> "a") == std::strong_ordering::equal);
}

TEST(StringTest, IteratorsKnowTheirOffset) {
    String const s("012345");
    auto it = s.begin();
    it += 2;
    EXPECT_EQ(*it++, '2');
    EXPECT_EQ(*++it, '4');
    EXPECT_EQ(it.offset(), 4u);
    EXPECT_EQ(*it--, '4');
    EXPECT_EQ(it[1], '4');
    EXPECT_EQ(s.end() - it, 3);
    it.charPtrIs(s.charPtr() + 5);
    EXPECT_EQ(it.offset(), 5u);
    EXPECT_EQ(it.beginPtr(), s.charPtr());
    EXPECT_LT(it, s.end());
}

TEST(StringTest, IsARangeOfItsBytes) {
    String const s("a\0b"sv);
    EXPECT_EQ(std::vector<char>(s.begin(), s.end()), (std::vector<char>{'a', '\0', 'b'}));
}

TEST(StringTest, DedupLetsEqualStringsShareStorage) {
    String a("StringTest dedup");
    String b("StringTest dedup");
    ASSERT_FALSE(a.sharesStorageWith(b));
    EXPECT_EQ(&a.dedup(), &a);
    b.dedup();
    EXPECT_TRUE(a.sharesStorageWith(b));
    EXPECT_EQ(b, "StringTest dedup");
    char const* const storage = a.charPtr();
    EXPECT_EQ(a.dedup().charPtr(), storage);
    EXPECT_TRUE(String().dedup().empty());
}

TEST(StringTest, DedupForgetsStringsThatNobodyHolds) {
    String const held = String("StringTest held").dedup();
    char const* const heldStorage = held.charPtr();
    String("StringTest unheld").dedup();
    String later("StringTest unheld");  // allocated while the pool still has the first, so its storage is another
    char const* const laterStorage = later.charPtr();
    for (int i = 0; i < 3000; ++i) Vel::format("StringTest passing %d", i).dedup();
    EXPECT_EQ(later.dedup().charPtr(), laterStorage);
    EXPECT_EQ(String("StringTest held").dedup().charPtr(), heldStorage);
}

TEST(StringTest, FormatsAnyLength) {
    EXPECT_EQ(Vel::format("cell/%u/%s", 7u, "status"), "cell/7/status");
    EXPECT_TRUE(Vel::format("%s", "").empty());
    for (std::size_t const length : {1u, 254u, 255u, 256u, 257u, 511u, 512u, 100000u}) {
        std::string const text(length, 'x');
        String const s = Vel::format("%s", text.c_str());
        EXPECT_TRUE(s == text) << length;
        EXPECT_EQ(s.charPtr()[length], '\0') << length;
    }
}

TEST(StringTest, FormatKeepsNulBytes) { EXPECT_EQ(Vel::format("a%cb", 0), String("a\0b"sv)); }

TEST(StringTest, FormatThrowsWhereTheCLibraryFails) {
    wchar_t const notInTheCLocale[] = {0x20AC, 0};
    EXPECT_EQ(rangeError([&] { Vel::format("%ls", notInTheCLocale); }), "malformed format");
}

TEST(StringTest, StreamsItsBytes) {
    std::ostringstream out;
    out << String("a\0b"sv) << String() << '.';
    EXPECT_EQ(out.str(), std::string("a\0b.", 4));
}

TEST(StringTest, HashesAsItsBytesDo) {
    String const s("hashed\0"sv);
    EXPECT_EQ(std::hash<String>()(s), std::hash<std::string_view>()("hashed\0"sv));
    EXPECT_EQ(std::hash<String>()(String()), std::hash<std::string_view>()(""sv));
    std::unordered_set<String> const set{"a", "b", "a"};
    EXPECT_EQ(set.size(), 2u);
    EXPECT_TRUE(set.contains("b"));
}

TEST(StringTest, IteratorsAreInTheOrderOfTheirPlaces) {
    String const text("abc");
    auto const first = text.begin(), last = text.begin() + 2;
    EXPECT_TRUE(first < last);
    EXPECT_FALSE(last < first);
    EXPECT_TRUE((first <=> text.begin()) == std::strong_ordering::equal);
    EXPECT_FALSE(first < text.begin());
}

TEST(StringTest, WithoutMemoryThereIsNoString) {
    if (!CollectionTest::allocationsAreCounted()) GTEST_SKIP() << "allocation can't be made to fail in this build";
    bool thrown = false;
    {
        CollectionTest::NoMemory const none;
        try {
            String const text("text");
        } catch (std::bad_alloc const&) {
            thrown = true;
        }
    }
    EXPECT_TRUE(thrown);
}

}  // namespace
