#pragma once

#include "Mox/TristateTypes.h"

#include "RecordTest.h"

#include <string>

// One line a tristate type: what it is called, and its values as text and bytes.
template <class T> struct TristateCase;
template <class S> struct TristateScalar { using Scalar = S; };

template <> struct TristateCase<Mox::TristateBoolean> : TristateScalar<bool> {
    static constexpr char const *name = "Mox::TristateBoolean", *scalarName = "bool", *conversion = "%s";
    static constexpr Scalar zero = false, sample = true;
    static constexpr char const *zeroText = "False", *sampleText = "True", *zeroHex = "00", *sampleHex = "01";
    static constexpr char const* expected = "True or False";
};
template <> struct TristateCase<Mox::TristateString> : TristateScalar<Vel::String> {
    static constexpr char const *name = "Mox::TristateString", *scalarName = "Vel::String", *conversion = "%s";
    static inline Scalar const zero = "", sample = "it's";
    static constexpr char const *zeroText = "''", *sampleText = "'it\\'s'", *zeroHex = "00000000",
                                *sampleHex = "0000000469742773";
    static constexpr char const* expected = "a string in single quotes";
};
template <> struct TristateCase<Mox::TristateF64> : TristateScalar<double> {
    static constexpr char const *name = "Mox::TristateF64", *scalarName = "F64", *conversion = "%s";
    static constexpr Scalar zero = 0.0, sample = -2.5;
    static constexpr char const *zeroText = "0.0", *sampleText = "-2.5", *zeroHex = "0000000000000000",
                                *sampleHex = "c004000000000000";
    static constexpr char const* expected = "the shortest decimal of a double, such as 1.5";
};
template <> struct TristateCase<Mox::TristateU8> : TristateScalar<unsigned char> {
    static constexpr char const *name = "Mox::TristateU8", *scalarName = "U8", *conversion = "%u";
    static constexpr Scalar zero = 0, sample = 255;
    static constexpr char const *zeroText = "0", *sampleText = "255", *zeroHex = "00", *sampleHex = "ff";
    static constexpr char const* expected = "a number from 0 to 255";
};
template <> struct TristateCase<Mox::TristateU16> : TristateScalar<unsigned short> {
    static constexpr char const *name = "Mox::TristateU16", *scalarName = "U16", *conversion = "%u";
    static constexpr Scalar zero = 0, sample = 65280;
    static constexpr char const *zeroText = "0", *sampleText = "65280", *zeroHex = "0000", *sampleHex = "ff00";
    static constexpr char const* expected = "a number from 0 to 65535";
};
template <> struct TristateCase<Mox::TristateU32> : TristateScalar<unsigned int> {
    static constexpr char const *name = "Mox::TristateU32", *scalarName = "U32", *conversion = "%u";
    static constexpr Scalar zero = 0, sample = 4278255361u;
    static constexpr char const *zeroText = "0", *sampleText = "4278255361", *zeroHex = "00000000",
                                *sampleHex = "ff00ff01";
    static constexpr char const* expected = "a number from 0 to 4294967295";
};
template <> struct TristateCase<Mox::TristateU64> : TristateScalar<unsigned long> {
    static constexpr char const *name = "Mox::TristateU64", *scalarName = "U64", *conversion = "%lu";
    static constexpr Scalar zero = 0, sample = 18446744073709551615ul;
    static constexpr char const *zeroText = "0", *sampleText = "18446744073709551615", *zeroHex = "0000000000000000",
                                *sampleHex = "ffffffffffffffff";
    static constexpr char const* expected = "a number from 0 to 18446744073709551615";
};

using TristateTypes = testing::Types<Mox::TristateBoolean, Mox::TristateString, Mox::TristateF64, Mox::TristateU8,
    Mox::TristateU16, Mox::TristateU32, Mox::TristateU64>;

template <class T> class TristateTest : public testing::Test {
protected:
    using Case = TristateCase<T>;
    using Scalar = typename Case::Scalar;

    static std::string recordText(std::string const& value, std::string const& isSet) {
        return "Value('" + std::string(Case::name) + "', ** {'value': " + value + ", 'isSet': " + isSet + "})";
    }

    static inline Scalar const zero = Case::zero;
    static inline Scalar const sample = Case::sample;
};
