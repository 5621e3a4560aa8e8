#include "Vel/stream/internal/StreamRefusal.h"

#include <gtest/gtest.h>

namespace {

using Vel::faultOf;
using Vel::refusalOf;
using Vel::StreamFault;

TEST(StreamRefusalTest, SentencesAreFoundAgain) {
    for (StreamFault const fault : {StreamFault::nothingThere, StreamFault::noSuchModule, StreamFault::otherVersion})
        for (char const* const about : {"", "a", "' at the client"}) {
            Vel::StreamRefusal const refusal = refusalOf(fault, about);
            EXPECT_EQ(refusal.fault, fault);
            EXPECT_EQ(faultOf(refusal.text.view()), fault) << refusal.text;
        }
    EXPECT_EQ(refusalOf(StreamFault::nothingThere, "/d").text, "there is nothing at '/d'");
}

TEST(StreamRefusalTest, OtherTextsAreOther) {
    for (char const* const text :
        {"", "there is nothing at '", "there is nothing at 'a", "module ", "refused: there is nothing at 'a'",
            "the server has 7 connections already", "user module m at the client may not connect"})
        EXPECT_EQ(faultOf(text), StreamFault::other) << text;
}

}  // namespace
