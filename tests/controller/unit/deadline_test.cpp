#include "service/deadline.h"

#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

using namespace std::chrono_literals;

TEST(DeadlineTest, IsDueOnceAndOnlyWhenItHasPassed) {
    Deadline none;
    EXPECT_FALSE(due(none));
    Deadline passed = std::chrono::steady_clock::now();
    EXPECT_TRUE(due(passed));
    EXPECT_EQ(passed, std::nullopt);
    EXPECT_FALSE(due(passed));
    Deadline later = std::chrono::steady_clock::now() + 1h;
    EXPECT_FALSE(due(later));
    EXPECT_NE(later, std::nullopt);
}

TEST(DeadlineTest, TheNearestOneIsTheEarliest) {
    const Deadline soon = std::chrono::steady_clock::now();
    const Deadline late = *soon + 1s;
    EXPECT_EQ(nearestOf({}), std::nullopt);
    EXPECT_EQ(nearestOf({std::nullopt, std::nullopt}), std::nullopt);
    EXPECT_EQ(nearestOf({late, std::nullopt, soon, late}), soon);
}

}  // namespace
}  // namespace vesk::controller
