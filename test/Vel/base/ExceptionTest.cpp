#include "Vel/base/Exception.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>

namespace {

using Vel::String;

// What catching by Base says; empty when it does not catch.
template <class Base, class Thrown> std::string caughtAs(Thrown const& thrown) {
    try {
        throw thrown;
    } catch (Base const& error) {
        return error.what();
    } catch (...) {
        return "";
    }
}

template <class E> class ExceptionTest : public testing::Test {};

using Kinds = testing::Types<Vel::Exception, Vel::RangeException, Vel::NameInUseException, Vel::TypeException,
    Vel::UnhashableException, Vel::NewEntityArgsException, Vel::MutatorArgNullPointerException, Vel::ModuleException>;
TYPED_TEST_SUITE(ExceptionTest, Kinds);

TYPED_TEST(ExceptionTest, SaysItsTextAndIsCaughtAsEveryBase) {
    TypeParam const error("the text");
    EXPECT_STREQ(error.what(), "the text");
    EXPECT_EQ(error.text(), "the text");
    EXPECT_EQ(caughtAs<TypeParam>(error), "the text");
    EXPECT_EQ(caughtAs<Vel::Exception>(error), "the text");
    EXPECT_EQ(caughtAs<std::exception>(error), "the text");
}

TYPED_TEST(ExceptionTest, CopiesWithoutThrowingAndSharesTheText) {
    static_assert(std::is_nothrow_copy_constructible_v<TypeParam>);
    static_assert(std::is_nothrow_copy_assignable_v<TypeParam>);
    TypeParam const error("the text");
    TypeParam copy(error);
    EXPECT_TRUE(copy.text().sharesStorageWith(error.text()));
    copy = TypeParam("another text");
    EXPECT_STREQ(copy.what(), "another text");
    EXPECT_STREQ(error.what(), "the text");
}

TEST(ExceptionKindsTest, ParseAndStreamErrorsAreRangeErrorsWithAPlace) {
    Vel::ParseException const parse("bad text", 7);
    Vel::StreamException const stream("bad bytes", 9);
    EXPECT_EQ(parse.offset(), 7u);
    EXPECT_EQ(stream.offset(), 9u);
    EXPECT_EQ(caughtAs<Vel::RangeException>(parse), "bad text");
    EXPECT_EQ(caughtAs<Vel::RangeException>(stream), "bad bytes");
    EXPECT_EQ(caughtAs<Vel::StreamException>(parse), "");
    EXPECT_EQ(caughtAs<Vel::ParseException>(stream), "");
}

TEST(ExceptionKindsTest, UnhashableIsATypeError) {
    EXPECT_EQ(caughtAs<Vel::TypeException>(Vel::UnhashableException("no hash")), "no hash");
    EXPECT_EQ(caughtAs<Vel::UnhashableException>(Vel::TypeException("no type")), "");
}

TEST(ExceptionKindsTest, UnrelatedKindsDoNotCatchEachOther) {
    EXPECT_EQ(caughtAs<Vel::RangeException>(Vel::ErrnoException(EINVAL)), "");
    EXPECT_EQ(caughtAs<Vel::RangeException>(Vel::NameInUseException("taken")), "");
    EXPECT_EQ(caughtAs<Vel::NameInUseException>(Vel::Exception("plain")), "");
}

TEST(ErrnoExceptionTest, SaysWhatTheNumberMeans) {
    Vel::ErrnoException const error(22);
    EXPECT_STREQ(error.what(), "Invalid argument (EINVAL)");
    EXPECT_EQ(error.error(), EINVAL);
    EXPECT_EQ(caughtAs<Vel::Exception>(error), "Invalid argument (EINVAL)");
}

TEST(ErrnoExceptionTest, NamesTheSubject) {
    Vel::ErrnoException const error(EACCES, "/etc/product");
    EXPECT_STREQ(error.what(), "/etc/product: Permission denied (EACCES)");
    EXPECT_EQ(error.error(), 13);
}

TEST(ErrnoExceptionTest, SaysANumberThatMeansNothing) {
    EXPECT_STREQ(Vel::ErrnoException(99999).what(), "Unknown error 99999");
    EXPECT_STREQ(Vel::ErrnoException(-1).what(), "Unknown error -1");
    EXPECT_STREQ(Vel::ErrnoException(99999, "file").what(), "file: Unknown error 99999");
}

TEST(ExceptionKindsTest, ThrowRangeExceptionThrowsItsText) {
    bool caught = false;
    try {
        Vel::throwRangeException("out of range");
    } catch (Vel::RangeException const& error) {
        EXPECT_STREQ(error.what(), "out of range");
        EXPECT_EQ(typeid(error), typeid(Vel::RangeException));
        caught = true;
    }
    EXPECT_TRUE(caught);
}

}  // namespace
