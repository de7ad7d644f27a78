#include "base/timespec.h"

#include <gtest/gtest.h>

namespace vesk {
namespace {

using namespace std::chrono_literals;

TEST(TimespecTest, SplitsADurationIntoSecondsAndNanoseconds) {
    const timespec time = toTimespec(2s + 5ns);
    EXPECT_EQ(time.tv_sec, 2);
    EXPECT_EQ(time.tv_nsec, 5);
}

TEST(TimespecTest, ConvertsBackToTheSameDuration) {
    for (const std::chrono::nanoseconds duration :
         {0ns, 1ns, 999999999ns, 1000000000ns, 61000000001ns}) {
        EXPECT_EQ(toDuration(toTimespec(duration)), duration);
    }
}

}  // namespace
}  // namespace vesk
