#include "Vel/entity/ActivityManager.h"

#include <gtest/gtest.h>

namespace {

TEST(ActivityManagerTest, SystemNameIsEmptyUntilSet) {
    Vel::ActivityManager manager;
    EXPECT_EQ(manager.systemName(), "");
    manager.systemNameIs("ql");
    EXPECT_EQ(manager.systemName(), "ql");
}

TEST(ActivityManagerTest, ProcessHasOne) {
    Vel::String const before = Vel::activityManager().systemName();
    Vel::activityManager().systemNameIs("here");
    EXPECT_EQ(Vel::activityManager().systemName(), "here");
    Vel::activityManager().systemNameIs(before);
}

}  // namespace
