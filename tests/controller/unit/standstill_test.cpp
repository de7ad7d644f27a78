#include "service/standstill.h"

#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

using std::chrono::milliseconds;

TEST(Standstill, RequiresUnchangedCountersForTheWholeTime) {
    const Standstill::Clock::time_point firstSeen;
    Standstill standstill(milliseconds(1000));
    EXPECT_FALSE(standstill.observe({1, 2}, firstSeen));
    EXPECT_FALSE(standstill.observe({1, 2}, firstSeen + milliseconds(999)));
    EXPECT_FALSE(standstill.observe({1, 3}, firstSeen + milliseconds(1000)));
    EXPECT_FALSE(standstill.observe({1, 3}, firstSeen + milliseconds(1999)));
    EXPECT_TRUE(standstill.observe({1, 3}, firstSeen + milliseconds(2000)));
}

TEST(TrafficCounters, ChangeWithTrafficOfAnyKind) {
    Report report;
    report.downstream.emplace();
    report.lateral.emplace();
    report.flows.push_back({7, {}});
    const auto before = trafficCounters(report);

    Report more = report;
    more.downstream->received = 1;
    EXPECT_NE(trafficCounters(more), before);
    more = report;
    more.lateral->repliesSent = 1;
    EXPECT_NE(trafficCounters(more), before);
    more = report;
    more.flows[0].counters.sent = 1;
    EXPECT_NE(trafficCounters(more), before);
    more = report;
    more.flows[0].label = 8;
    EXPECT_NE(trafficCounters(more), before);
}

TEST(TrafficCounters, IgnoreCountersThatAreNotTraffic) {
    Report report;
    const auto before = trafficCounters(report);
    report.poll.emplace().readEvents = 5;
    report.workers.push_back({});
    EXPECT_EQ(trafficCounters(report), before);
}

TEST(Standstill, ReportsWhetherItObservedAnything) {
    Standstill standstill(milliseconds(1000));
    EXPECT_FALSE(standstill.observed());
    standstill.observe({1}, Standstill::Clock::time_point());
    EXPECT_TRUE(standstill.observed());
}

}  // namespace
}  // namespace vesk::controller
