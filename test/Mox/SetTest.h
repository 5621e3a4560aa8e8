#pragma once

#include "Mox/ChipSet.h"
#include "Mox/IdSet.h"

#include "ValueTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

// What the tests of chip sets and id sets share.

// --- what a broken precondition writes ---

// All of what is written to standard error: the explanation's line, when there is one, and the C library's. Line 0
// stands for any.
inline testing::Matcher<std::string const&> failure(std::string const& explanation, std::string const& condition,
    std::string const& source, unsigned line, std::string const& function) {
    std::string expected = explanation.empty() ? "" : explanation + "\n";
    expected += std::string(program_invocation_short_name) + ": " + source + ":" + (line ? std::to_string(line) : "N") +
                ": " + function + ": Assertion `" + condition + "' failed.\n";
    auto const withoutLine = [source, line](std::string const& text) {
        auto const colon = text.find(source + ":");
        if (line || colon == std::string::npos) return text;
        auto const digits = colon + source.size() + 1;
        auto const behind = text.find_first_not_of("0123456789", digits);
        return behind == digits || behind == std::string::npos ? text
                                                               : text.substr(0, digits) + "N" + text.substr(behind);
    };
    return testing::ResultOf(withoutLine, testing::StartsWith(expected));
}
// Of an id set, with and without an explanation.
inline auto explained(std::string const& condition, std::string const& message, std::string const& function) {
    return failure("Assertion " + condition + " failed: " + message, "\"" + condition + "\" == nullptr",
        "/src/Mox/IdSet", 0, function);
}
inline auto plain(std::string const& condition, std::string const& function) {
    return failure("", condition, "/src/Mox/IdSet", 0, function);
}
#define EXPECT_ABORT(statement, matcher) EXPECT_EXIT(statement, testing::KilledBySignal(SIGABRT), matcher)

// --- id sets ---

using Words = std::map<unsigned, Vel::U64>;  // by bucket

inline Words wordsOf(Mox::IdSet const& set) {
    Words words;
    for (unsigned b = 0; b < 256; ++b) {
        Mox::BucketId const bucket(static_cast<Vel::U8>(b));
        if (set.bucketExists(bucket)) words[b] = set.bucket(bucket);
    }
    return words;
}

// By walking from member to member, at most `limit` of them.
inline std::vector<unsigned> membersOf(Mox::IdSet const& set, std::size_t limit = 1000) {
    std::vector<unsigned> members;
    for (auto id = set.firstId(); id != Mox::Id() && members.size() < limit; id = set.nextId(id))
        members.push_back(id.value());
    return members;
}

inline constexpr Vel::U64 allOnes = ~Vel::U64(0);
