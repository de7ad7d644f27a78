#include "service/report_clock.h"

#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds interval{1000};
const ReportClock::Clock::time_point start{std::chrono::hours(1)};

TEST(ReportClock, IsNotDueUntilItIsStarted) {
    ReportClock clock;
    EXPECT_FALSE(clock.due(start));
    EXPECT_EQ(clock.dueAt(), std::nullopt);
    clock.start(start);
    EXPECT_TRUE(clock.due(start));
}

TEST(ReportClock, KeepsTheTimeThatItHasWhenStartedAgain) {
    ReportClock clock;
    clock.start(start);
    EXPECT_TRUE(clock.ask(start, interval));
    clock.start(start + milliseconds(1));
    EXPECT_EQ(clock.dueAt(), start + interval);
    EXPECT_FALSE(clock.due(start + milliseconds(999)));
    EXPECT_TRUE(clock.due(start + interval));
}

TEST(ReportClock, AsksForOneReportAtATime) {
    ReportClock clock;
    EXPECT_TRUE(clock.ask(start, interval));
    EXPECT_FALSE(clock.ask(start + interval, interval));
    EXPECT_EQ(clock.dueAt(), start + 2 * interval);
    clock.answered();
    EXPECT_TRUE(clock.ask(start + 2 * interval, interval));
}

TEST(ReportClock, WaitsForTheOutstandingReportAlsoWhenStopped) {
    ReportClock clock;
    EXPECT_TRUE(clock.ask(start, interval));
    clock.stop();
    EXPECT_FALSE(clock.due(start + interval));
    EXPECT_FALSE(clock.ask(start + interval, interval));
}

TEST(ReportClock, ForgetsTheReportsOfAnEarlierForwarder) {
    ReportClock clock;
    EXPECT_TRUE(clock.ask(start, interval));
    clock.reset();
    EXPECT_EQ(clock.dueAt(), std::nullopt);
    EXPECT_TRUE(clock.ask(start, interval));
}

}  // namespace
}  // namespace vesk::controller
