#pragma once

#include "tools/lib/Input.h"
#include "tools/lib/Output.h"

#include "test/tools/RunTool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

// What the tests of the tool's library share. No colour stands in any answer: see LibTest.cpp.
namespace ToolTest {

// What f writes to standard error.
template <class F> std::string complaintsOf(F const& f) {
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

// "EXIT-CODE: TEXT" of the Failure that f throws.
template <class F> std::string failureOf(F const& f) {
    try {
        f();
    } catch (Tool::Failure const& failure) {
        return std::to_string(failure.exitCode()) + ": " + failure.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return "";
}

}  // namespace ToolTest
