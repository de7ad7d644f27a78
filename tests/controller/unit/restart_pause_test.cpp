#include "child/restart_pause.h"

#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(RestartPause, DoublesUpToTheMaximum) {
    RestartPause pause(milliseconds(100), milliseconds(350));
    EXPECT_EQ(pause.after(seconds(0)), milliseconds(100));
    EXPECT_EQ(pause.after(seconds(59)), milliseconds(200));
    EXPECT_EQ(pause.after(seconds(1)), milliseconds(350));
    EXPECT_EQ(pause.after(seconds(1)), milliseconds(350));
}

TEST(RestartPause, StartsOverAfterARunOfAMinute) {
    RestartPause pause(milliseconds(100), milliseconds(400));
    EXPECT_EQ(pause.after(seconds(0)), milliseconds(100));
    EXPECT_EQ(pause.after(seconds(0)), milliseconds(200));
    EXPECT_EQ(pause.after(seconds(60)), milliseconds(100));
    EXPECT_EQ(pause.after(seconds(0)), milliseconds(200));
}

TEST(RestartPause, NeverExceedsTheMaximum) {
    RestartPause pause(milliseconds(100), milliseconds(50));
    EXPECT_EQ(pause.after(seconds(0)), milliseconds(50));
    EXPECT_EQ(pause.after(seconds(60)), milliseconds(50));
}

}  // namespace
}  // namespace vesk::controller
