#include "poll/linger.h"

#include <gtest/gtest.h>

#include <chrono>

namespace vesk {
namespace {

using std::chrono::microseconds;

/// A gauge after one window in which the process and the thread used these processor times.
SaturationGauge afterWindow(std::chrono::nanoseconds length, std::chrono::nanoseconds process,
                            std::chrono::nanoseconds thread) {
    constexpr SpentTime start{std::chrono::seconds(5), std::chrono::seconds(2),
                              std::chrono::seconds(1)};
    SaturationGauge gauge;
    gauge.endWindow(start);
    gauge.endWindow({start.clock + length, start.process + process, start.thread + thread});
    return gauge;
}

bool saturatedAfter(microseconds length, microseconds process, microseconds thread) {
    return afterWindow(length, process, thread).saturated();
}

TEST(SaturationGaugeTest, IsNotSaturatedBeforeItHasMeasured) {
    EXPECT_FALSE(SaturationGauge().saturated());
}

TEST(SaturationGaugeTest, IsSaturatedWhenTheProcessKeptAProcessorBusy) {
    EXPECT_TRUE(saturatedAfter(microseconds(1000), microseconds(1000), microseconds(300)));
    EXPECT_TRUE(saturatedAfter(microseconds(1000), microseconds(900), microseconds(300)));
    EXPECT_TRUE(saturatedAfter(microseconds(1000), microseconds(1700), microseconds(300)));
}

TEST(SaturationGaugeTest, IsNotSaturatedWhenTheProcessWasIdleOrSharedTheProcessor) {
    EXPECT_FALSE(saturatedAfter(microseconds(1000), microseconds(899), microseconds(300)));
    EXPECT_FALSE(saturatedAfter(microseconds(3000), microseconds(1500), microseconds(500)));
    EXPECT_FALSE(saturatedAfter(std::chrono::hours(1), microseconds(1000), microseconds(1000)));
}

TEST(SaturationGaugeTest, IsNotSaturatedWhenOtherThreadsKeptTheProcessorBusy) {
    EXPECT_TRUE(saturatedAfter(microseconds(1000), microseconds(1000), microseconds(50)));
    EXPECT_FALSE(saturatedAfter(microseconds(1000), microseconds(1000), microseconds(49)));
}

TEST(SaturationGaugeTest, MeasuresWindowsOfAMillisecond) {
    SaturationGauge gauge;
    gauge.endWindow({microseconds(500), {}, {}});
    EXPECT_FALSE(gauge.windowIsOver(microseconds(1499)));
    EXPECT_TRUE(gauge.windowIsOver(microseconds(1500)));
}

TEST(SaturationGaugeTest, IgnoresEarlierWindows) {
    SaturationGauge gauge = afterWindow(microseconds(1000), microseconds(1000), microseconds(1000));
    gauge.endWindow({std::chrono::seconds(6), std::chrono::seconds(2), std::chrono::seconds(1)});
    EXPECT_FALSE(gauge.saturated());
}

}  // namespace
}  // namespace vesk
