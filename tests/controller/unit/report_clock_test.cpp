#include "service/report_clock.h"

#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds reportInterval{1000};
const ReportClock::Clock::time_point firstTime{std::chrono::hours(1)};

TEST(ReportClock, IsNotDueUntilItIsStarted) {
    ReportClock clock;
    EXPECT_FALSE(clock.due(firstTime));
    EXPECT_EQ(clock.dueAt(), std::nullopt);
    clock.start(firstTime);
    EXPECT_TRUE(clock.due(firstTime));
}

TEST(ReportClock, KeepsItsTimeWhenStartedAgain) {
    ReportClock clock;
    clock.start(firstTime);
    EXPECT_TRUE(clock.ask(firstTime, reportInterval));
    clock.start(firstTime + milliseconds(1));
    EXPECT_EQ(clock.dueAt(), firstTime + reportInterval);
    EXPECT_FALSE(clock.due(firstTime + milliseconds(999)));
    EXPECT_TRUE(clock.due(firstTime + reportInterval));
}

TEST(ReportClock, AsksForOneReportAtATime) {
    ReportClock clock;
    EXPECT_TRUE(clock.ask(firstTime, reportInterval));
    EXPECT_FALSE(clock.ask(firstTime + reportInterval, reportInterval));
    EXPECT_EQ(clock.dueAt(), firstTime + 2 * reportInterval);
    clock.answered();
    EXPECT_TRUE(clock.ask(firstTime + 2 * reportInterval, reportInterval));
}

TEST(ReportClock, WaitsForTheOutstandingReportEvenAfterAStop) {
    ReportClock clock;
    EXPECT_TRUE(clock.ask(firstTime, reportInterval));
    clock.stop();
    EXPECT_FALSE(clock.due(firstTime + reportInterval));
    EXPECT_FALSE(clock.ask(firstTime + reportInterval, reportInterval));
}

TEST(ReportClock, ForgetsTheReportsOfAnEarlierForwarder) {
    ReportClock clock;
    EXPECT_TRUE(clock.ask(firstTime, reportInterval));
    clock.reset();
    EXPECT_EQ(clock.dueAt(), std::nullopt);
    EXPECT_TRUE(clock.ask(firstTime, reportInterval));
}

}  // namespace
}  // namespace vesk::controller
