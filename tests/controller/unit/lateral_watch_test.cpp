#include "names/lateral_watch.h"

#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

TEST(LateralWatch, SuspectsAPeerIfADatagramCouldNotBeHandedOver) {
    LateralWatch watch;
    EXPECT_FALSE(watch.observe({0, 0, 0}));
    EXPECT_TRUE(watch.observe({5, 5, 1}));
    EXPECT_FALSE(watch.observe({9, 9, 1}));
}

TEST(LateralWatch, SuspectsAPeerIfNothingComesBack) {
    LateralWatch watch;
    EXPECT_TRUE(watch.observe({0, 3, 0}));
    EXPECT_FALSE(watch.observe({0, 3, 0})) << "nothing was sent";
    EXPECT_FALSE(watch.observe({1, 4, 0}));
    EXPECT_TRUE(watch.observe({1, 5, 0}));
}

TEST(LateralWatch, ANewSocketBeginsAtZero) {
    LateralWatch watch;
    EXPECT_FALSE(watch.observe({9, 9, 0}));
    EXPECT_FALSE(watch.observe({0, 0, 0}));
    EXPECT_TRUE(watch.observe({0, 1, 0}));
}

}  // namespace
}  // namespace vesk::controller
