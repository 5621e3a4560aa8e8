#include "Vel/describe/Format.h"

#include "Vel/describe/Value.h"

#include <gtest/gtest.h>

namespace {

#if defined(__cpp_lib_format)

TEST(FormatTest, StringsFormatAsTexts) { EXPECT_EQ(std::format("[{:>5}]", Vel::String("abc")), "[  abc]"); }

#else

TEST(FormatTest, StringsFormatAsTexts) { GTEST_SKIP() << "this standard library has no std::format"; }

#endif

}
