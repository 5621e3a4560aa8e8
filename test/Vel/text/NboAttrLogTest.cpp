#include "Vel/text/NboAttrLog.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <functional>
#include <limits>
#include <new>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using Vel::Seconds;
using Vel::StreamException;
using Vel::String;
using Vel::U1;
using Vel::U16;
using Vel::U32;
using Vel::U64;
using Vel::U8;
using Vel::NboAttrLog::In;
using Vel::NboAttrLog::Out;
using namespace std::string_view_literals;

using Bytes = std::vector<U8>;

Bytes bytesOf(Out const& out) { return {out.bytes().begin(), out.bytes().end()}; }

template <class T> Bytes written(T const& value) {
    Out out;
    out << value;
    return bytesOf(out);
}

// --- writing ---

template <class T>
concept Writable = requires(Out& out, T value) {
    out << value;
};

TEST(NboAttrLogOutTest, NumbersAreInNetworkByteOrder) {
    EXPECT_EQ(written(U8(0x12)), Bytes{0x12});
    EXPECT_EQ(written(U16(0x1234)), (Bytes{0x12, 0x34}));
    EXPECT_EQ(written(U32(0x12345678)), (Bytes{0x12, 0x34, 0x56, 0x78}));
    EXPECT_EQ(written(U64(0x123456789abcdef0)), (Bytes{0x12, 0x34, 0x56, 0x78, 0x9a, 0xbc, 0xde, 0xf0}));
    EXPECT_EQ(written(U32(0xFFFFFFFF)), (Bytes{0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST(NboAttrLogOutTest, FlagsAreOneByte) {
    EXPECT_EQ(written(true), Bytes{1});
    EXPECT_EQ(written(false), Bytes{0});
    EXPECT_EQ(written(U1(true)), Bytes{1});
    EXPECT_EQ(written(U1()), Bytes{0});
}

TEST(NboAttrLogOutTest, DoublesAndSecondsAreTheirIeeeBits) {
    EXPECT_EQ(written(1.0), (Bytes{0x3F, 0xF0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(written(-0.0), (Bytes{0x80, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(written(Seconds(1700000000.125)), (Bytes{0x41, 0xD9, 0x54, 0xFC, 0x40, 0x08, 0, 0}));
    EXPECT_EQ(written(std::numeric_limits<double>::infinity()), (Bytes{0x7F, 0xF0, 0, 0, 0, 0, 0, 0}));
}

TEST(NboAttrLogOutTest, StringsAreTheirLengthAndBytes) {
    EXPECT_EQ(written(String()), (Bytes{0, 0, 0, 0}));
    EXPECT_EQ(written(String("a\0b"sv)), (Bytes{0, 0, 0, 3, 'a', 0, 'b'}));
    Bytes const bytes = written(String(std::string(300, 'x')));
    EXPECT_EQ(bytes.size(), 304u);
    EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + 5), (Bytes{0, 0, 1, 0x2C, 'x'}));
}

TEST(NboAttrLogOutTest, ItemsFollowEachOtherWithoutTagOrPadding) {
    Out out;
    out << U8(1) << U16(2) << true << String("s") << U32(3);
    EXPECT_EQ(bytesOf(out), (Bytes{1, 0, 2, 1, 0, 0, 0, 1, 's', 0, 0, 0, 3}));
    EXPECT_EQ(out.size(), 13u);
}

TEST(NboAttrLogOutTest, APointerIsNoFlag) {
    static_assert(!Writable<int*>);
    static_assert(!Writable<int>);  // of which width?
    EXPECT_EQ(written("text"), (Bytes{0, 0, 0, 4, 't', 'e', 'x', 't'}));
}

TEST(NboAttrLogOutTest, AReusedOutDoesNotAllocate) {
    Out out;
    auto const fill = [&] {
        for (U32 i = 0; i < 1000; ++i) out << i << U64(i) << String("text");
    };
    fill();
    U8 const* const memory = out.data();
    std::size_t const capacity = out.capacity();
    Bytes const first = bytesOf(out);
    for (int round = 0; round < 3; ++round) {
        out.clear();
        EXPECT_EQ(out.size(), 0u);
        fill();
        EXPECT_EQ(out.data(), memory);
        EXPECT_EQ(out.capacity(), capacity);
        EXPECT_EQ(bytesOf(out), first);
    }
}

TEST(NboAttrLogOutTest, GrowsByDoubling) {
    Out out;
    int growths = 0;
    for (int i = 0; i < 100000; ++i) {
        std::size_t const before = out.capacity();
        out << U8(0);
        if (out.capacity() != before) ++growths;
    }
    EXPECT_LE(growths, 12);  // 64 bytes doubled eleven times
}

TEST(NboAttrLogOutTest, ReservedRoomIsNotAllocatedAgain) {
    Out out(1000);
    EXPECT_GE(out.capacity(), 1000u);
    EXPECT_EQ(out.size(), 0u);
    U8 const* const memory = out.data();
    for (int i = 0; i < 250; ++i) out << U32(7);
    EXPECT_EQ(out.data(), memory);
    out.reserve(5000);
    EXPECT_GE(out.capacity(), 6000u);
    EXPECT_EQ(out.size(), 1000u);
    EXPECT_EQ(out.data()[999], 7u);
}

TEST(NboAttrLogOutTest, AppendGivesRoomForTheCallerToWrite) {
    Out out;
    out << U8(1);
    U8* const room = out.append(3);
    room[0] = 2;
    room[1] = 3;
    room[2] = 4;
    EXPECT_EQ(bytesOf(out), (Bytes{1, 2, 3, 4}));
}

TEST(NboAttrLogOutTest, MovesWithItsBytes) {
    Out a;
    a << U16(0x0102);
    Out b(std::move(a));
    EXPECT_EQ(bytesOf(b), (Bytes{1, 2}));
    EXPECT_EQ(a.size(), 0u);
    a << U8(9);
    EXPECT_EQ(bytesOf(a), Bytes{9});
    a = std::move(b);
    EXPECT_EQ(bytesOf(a), (Bytes{1, 2}));
}

TEST(NboAttrLogOutTest, AnEmptyOutHasNoBytes) {
    Out const out;
    EXPECT_EQ(out.size(), 0u);
    EXPECT_EQ(out.capacity(), 0u);
    EXPECT_TRUE(out.bytes().empty());
}

TEST(NboAttrLogOutTest, AnImpossibleSizeThrows) {
    Out out;
    out << U8(1);
    EXPECT_THROW(out.reserve(std::numeric_limits<std::size_t>::max() / 2), std::bad_alloc);
    EXPECT_EQ(bytesOf(out), Bytes{1});
}

TEST(NboAttrLogTest, LoadsAndStoresAtAnyAddress) {
    U8 bytes[16] = {};
    for (std::size_t offset = 0; offset < 8; ++offset) {
        Vel::NboAttrLog::store(bytes + offset, U64(0x0102030405060708));
        EXPECT_EQ(bytes[offset], 1u);
        EXPECT_EQ(bytes[offset + 7], 8u);
        EXPECT_EQ(Vel::NboAttrLog::load<U64>(bytes + offset), 0x0102030405060708u);
    }
}

// --- reading ---

TEST(NboAttrLogInTest, ReadsEachItemInOrder) {
    Bytes const bytes{0x12, 0x12, 0x34, 0x12, 0x34, 0x56, 0x78, 1, 2, 3, 4, 5, 6, 7, 8, 1, 0, 0x3F, 0xF8, 0, 0, 0, 0, 0,
        0, 0x41, 0xD9, 0x54, 0xFC, 0x40, 0x08, 0, 0, 0, 0, 0, 2, 'a', 0};
    In in(bytes);
    EXPECT_EQ(in.nextU8(), 0x12u);
    EXPECT_EQ(in.nextU16(), 0x1234u);
    EXPECT_EQ(in.nextU32(), 0x12345678u);
    EXPECT_EQ(in.nextU64(), 0x0102030405060708u);
    EXPECT_EQ(in.offset(), 15u);
    EXPECT_TRUE(in.nextbool());
    EXPECT_FALSE(in.nextbool());
    EXPECT_EQ(in.nextF64(), 1.5);
    EXPECT_EQ(in.nextSeconds(), Seconds(1700000000.125));
    EXPECT_EQ(in.nextString(), "a\0"sv);
    EXPECT_EQ(in.left(), 0u);
    EXPECT_EQ(in.offset(), bytes.size());
}

TEST(NboAttrLogInTest, RandomItemsReadBack) {
    std::mt19937_64 random(20261121);
    for (int round = 0; round < 500; ++round) {
        Out out;
        std::vector<std::function<void(In&)>> checks;
        for (int i = 0; i < 30; ++i) {
            U64 const v = random();
            switch (random() % 7) {
            case 0:
                out << static_cast<U8>(v);
                checks.push_back([v](In& in) { ASSERT_EQ(in.nextU8(), static_cast<U8>(v)); });
                break;
            case 1:
                out << static_cast<U16>(v);
                checks.push_back([v](In& in) { ASSERT_EQ(in.nextU16(), static_cast<U16>(v)); });
                break;
            case 2:
                out << static_cast<U32>(v);
                checks.push_back([v](In& in) { ASSERT_EQ(in.nextU32(), static_cast<U32>(v)); });
                break;
            case 3:
                out << v;
                checks.push_back([v](In& in) { ASSERT_EQ(in.nextU64(), v); });
                break;
            case 4:
                out << (v % 2 == 0);
                checks.push_back([v](In& in) { ASSERT_EQ(in.nextbool(), v % 2 == 0); });
                break;
            case 5:
                out << std::bit_cast<double>(v);
                checks.push_back([v](In& in) { ASSERT_EQ(std::bit_cast<U64>(in.nextF64()), v); });
                break;
            default:
                String const text(std::string(v % 50, static_cast<char>(v >> 8)));
                out << text;
                checks.push_back([text](In& in) { ASSERT_EQ(in.nextString(), text); });
            }
        }
        In in(out.bytes());
        for (auto const& check : checks) check(in);
        ASSERT_EQ(in.left(), 0u);
    }
}

// What the reader says; its position must not have moved.
template <class Read> std::string refusal(In& in, Read read) {
    std::size_t const offset = in.offset();
    std::size_t const left = in.left();
    try {
        (void)read(in);
    } catch (StreamException const& error) {
        EXPECT_EQ(error.offset(), offset);
        EXPECT_EQ(in.offset(), offset);
        EXPECT_EQ(in.left(), left);
        return error.what();
    }
    return "nothing was thrown";
}

// The items of a fixed width, cut off after each number of bytes, behind one byte that was read before.
template <class Read> void expectTruncation(std::string const& name, std::size_t width, Read read) {
    for (std::size_t left = 0; left < width; ++left) {
        Bytes const bytes(1 + left, 1);  // of exactly this size, so that a sanitizer sees a read beyond
        In in(bytes);
        in.nextU8();
        EXPECT_EQ(refusal(in, read), "the attribute log ends within " + name + " at offset 1: " +
                                         std::to_string(width) + " bytes needed, " + std::to_string(left) + " left");
    }
}

TEST(NboAttrLogInTest, ATruncatedItemThrowsAndLeavesThePosition) {
    expectTruncation("U8", 1, [](In& in) { return in.nextU8(); });
    expectTruncation("U16", 2, [](In& in) { return in.nextU16(); });
    expectTruncation("U32", 4, [](In& in) { return in.nextU32(); });
    expectTruncation("U64", 8, [](In& in) { return in.nextU64(); });
    expectTruncation("bool", 1, [](In& in) { return in.nextbool(); });
    expectTruncation("F64", 8, [](In& in) { return in.nextF64(); });
    expectTruncation("Vel::Seconds", 8, [](In& in) { return in.nextSeconds(); });
    expectTruncation("entity id", 4, [](In& in) { return in.peekEntityId(); });
    expectTruncation("entity id", 4, [](In& in) { return in.nextEntity(); });
    expectTruncation("the length of a Vel::String", 4, [](In& in) { return in.nextString(); });
}

TEST(NboAttrLogInTest, ATruncatedStringThrowsAndLeavesThePosition) {
    Bytes const whole = written(String("text"));
    for (std::size_t size = 4; size < whole.size(); ++size) {
        Bytes const bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        In in(bytes);
        EXPECT_EQ(refusal(in, [](In& i) { return i.nextString(); }),
            "the attribute log ends within Vel::String at offset 0: 8 bytes needed, " + std::to_string(size) + " left");
    }
}

TEST(NboAttrLogInTest, AHostileStringLengthIsRefusedBeforeAnythingIsAllocated) {
    Bytes const bytes{0xFF, 0xFF, 0xFF, 0xFF, 'a', 'b'};
    In in(bytes);
    EXPECT_EQ(refusal(in, [](In& i) { return i.nextString(); }),
        "the attribute log ends within Vel::String at offset 0: 4294967299 bytes needed, 6 left");
}

TEST(NboAttrLogInTest, AFlagIsZeroOrOne) {
    for (unsigned const byte : {2u, 0x80u, 255u}) {
        Bytes const bytes{1, static_cast<U8>(byte)};
        In in(bytes);
        EXPECT_TRUE(in.nextbool());
        EXPECT_EQ(refusal(in, [](In& i) { return i.nextbool(); }),
            "the bool at offset 1 is " + std::to_string(byte) + ", and neither 0 nor 1");
    }
}

TEST(NboAttrLogInTest, NothingCanBeReadOfNothing) {
    In in(std::span<U8 const>{});
    EXPECT_EQ(in.left(), 0u);
    EXPECT_EQ(refusal(in, [](In& i) { return i.nextU8(); }),
        "the attribute log ends within U8 at offset 0: 1 bytes needed, 0 left");
    EXPECT_EQ(in.take(1), nullptr);
}

TEST(NboAttrLogInTest, TakesBytesWithoutACopy) {
    Bytes const bytes{1, 2, 3};
    In in(bytes);
    EXPECT_EQ(in.take(2), bytes.data());
    EXPECT_EQ(in.offset(), 2u);
    EXPECT_EQ(in.take(2), nullptr);
    EXPECT_EQ(in.offset(), 2u);
    EXPECT_EQ(in.take(0), bytes.data() + 2);
    EXPECT_EQ(in.take(1), bytes.data() + 2);
    EXPECT_EQ(in.left(), 0u);
}

// --- entities ---

// Names entities that are never touched: addresses within itself.
class Resolver : public Vel::NboAttrLog::EntityResolver {
public:
    Vel::Entity* entity(Vel::EntityId id) override {
        asked.push_back(id);
        return id == 0x01020304 ? known() : nullptr;
    }
    Vel::Entity* known() { return reinterpret_cast<Vel::Entity*>(&place_); }
    std::vector<Vel::EntityId> asked;

private:
    U64 place_ = 0;
};

TEST(NboAttrLogInTest, AnEntityIsFoundByItsId) {
    Bytes const bytes{1, 2, 3, 4};
    Resolver resolver;
    In in(bytes, &resolver);
    EXPECT_EQ(in.peekEntityId(), 0x01020304u);
    EXPECT_EQ(in.peekEntityId(), 0x01020304u);
    EXPECT_EQ(in.offset(), 0u);
    EXPECT_EQ(in.nextEntity(), resolver.known());
    EXPECT_EQ(in.offset(), 4u);
    EXPECT_EQ(resolver.asked, std::vector<Vel::EntityId>{0x01020304});
}

TEST(NboAttrLogInTest, TheNullEntityIsNotLookedUp) {
    Bytes const bytes(8, 0);
    Resolver resolver;
    In in(bytes, &resolver);
    EXPECT_EQ(in.nextEntity(), nullptr);
    EXPECT_EQ(in.offset(), 4u);
    EXPECT_TRUE(resolver.asked.empty());
    In unresolved(bytes);
    EXPECT_EQ(unresolved.nextEntity(), nullptr);
}

TEST(NboAttrLogInTest, AnIdThatNamesNoEntityThrows) {
    Bytes const bytes{9, 0, 0, 0, 7};
    Resolver resolver;
    for (Resolver* const r : {&resolver, static_cast<Resolver*>(nullptr)}) {
        In in(bytes, r);
        in.nextU8();
        EXPECT_EQ(refusal(in, [](In& i) { return i.nextEntity(); }), "entity id 7 at offset 1 names no entity");
    }
}

}  // namespace
