#include "metrics/instance_figures.h"

#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

using SystemClock = std::chrono::system_clock;

/// A report in which a flow has sent this number of datagrams upstream, and received as many.
Report reportOf(std::uint64_t sent, std::uint32_t label = 5) {
    Report report;
    report.flows.push_back({label, {}});
    report.flows.front().counters.sent = sent;
    report.totals.sockets = 1;
    report.downstream.emplace().received = sent;
    return report;
}

class ChildrenTest : public testing::Test {
 protected:
    Children children_{true};

    void report(ChildId child, std::uint64_t sent, std::uint32_t label = 5) {
        children_.totals(child).add(reportOf(sent, label), {{label, "alice"}});
    }

    /// Child 0 is replaced by the returned one, and drains.
    ChildId replaceFirst() {
        const ChildId next = children_.add(0);
        children_.state(next).childUp = true;
        children_.makeCurrent(next);
        return next;
    }
};

TEST_F(ChildrenTest, TheFirstChildIsTheOnlyOne) {
    EXPECT_NE(children_.onlyTotals(), nullptr);
    children_.add(1);
    EXPECT_EQ(children_.onlyTotals(), nullptr);
}

TEST_F(ChildrenTest, CountsBothChildrenDuringAReplacementAndAfterwards) {
    children_.state(0).childUp = true;
    report(0, 10);
    const ChildId next = replaceFirst();
    report(next, 3);
    report(0, 12);
    EXPECT_EQ(children_.instances().front().totals.upstream.sent, 15U);
    EXPECT_EQ(children_.instances().front().totals.flowSockets, 2U);
    children_.remove(0);
    EXPECT_EQ(children_.instances().front().totals.upstream.sent, 15U);
    EXPECT_EQ(children_.instances().front().totals.downstream.received, 15U);
    EXPECT_EQ(children_.instances().front().totals.flows.at(5).counters.sent, 15U);
    EXPECT_EQ(children_.instances().front().totals.flowSockets, 1U);
    report(next, 4);
    EXPECT_EQ(children_.instances().front().totals.upstream.sent, 16U);
}

TEST_F(ChildrenTest, KeepsTheCountsOfADeclaredFlowUntilTheNewChildReports) {
    report(0, 10);
    const ChildId next = replaceFirst();
    children_.remove(0);
    report(next, 1);
    EXPECT_EQ(children_.instances().front().totals.flows.at(5).counters.sent, 11U);
}

TEST_F(ChildrenTest, ForgetsFlowsThatAreNoLongerThere) {
    report(0, 10);
    const ChildId next = replaceFirst();
    report(next, 1, 6);
    children_.remove(0);
    EXPECT_FALSE(children_.instances().front().totals.flows.contains(5));
    EXPECT_EQ(children_.instances().front().totals.upstream.sent, 11U);
}

TEST_F(ChildrenTest, TheStateIsThatOfTheCurrentChildAndItsCountsAreAddedUp) {
    children_.state(0).restarts = 2;
    children_.state(0).flowsActive = 7;
    children_.state(0).events = {1, 1, 1};
    children_.state(0).kernel.drops = {1, 2, 3};
    const ChildId next = children_.add(0);
    children_.state(next).events = {10, 0, 0};
    children_.state(next).kernel.drops = {10, 0, 0};
    EXPECT_EQ(children_.instances().front().state.flowsActive, 7U);
    children_.makeCurrent(next);
    children_.remove(0);
    const ChildState state = children_.instances().front().state;
    EXPECT_EQ(state.flowsActive, 0U);
    EXPECT_EQ(state.restarts, 2U);
    EXPECT_EQ(state.events, (LogEventCounts{11, 1, 1}));
    EXPECT_EQ(state.kernel.drops, (std::array<std::uint64_t, sides>{11, 2, 3}));
}

InstanceFigures runningInstance() {
    InstanceFigures figures;
    figures.totals.downstream.received = 5;
    figures.totals.workers = {{1, 2, 3}};
    figures.totals.flowSockets = 2;
    figures.state.childUp = true;
    figures.state.stage = Stage::settled;
    figures.state.listening = true;
    figures.state.flowsDeclared = 4;
    figures.state.flowsActive = 3;
    figures.state.lastReport = SystemClock::time_point(std::chrono::seconds(100));
    figures.state.kernel.descriptors = Room{10, 20};
    figures.state.kernel.ports = Room{1, 2};
    return figures;
}

TEST(SumOfInstancesTest, AddsUpTheCountsOfAll) {
    const InstanceFigures sum = sumOf({runningInstance(), runningInstance()});
    EXPECT_EQ(sum.totals.downstream.received, 10U);
    EXPECT_EQ(sum.totals.workers.front().received, 6U);
    EXPECT_EQ(sum.totals.flowSockets, 4U);
    EXPECT_EQ(sum.state.flowsDeclared, 8U);
    EXPECT_EQ(sum.state.flowsActive, 6U);
    EXPECT_TRUE(sum.state.childUp);
    EXPECT_TRUE(sum.state.listening);
    EXPECT_EQ(sum.state.lateralListening, std::nullopt);
    // Each process has its own limit; the host's figures are the same for all.
    EXPECT_EQ(sum.state.kernel.descriptors, (Room{20, 20}));
    EXPECT_EQ(sum.state.kernel.ports, (Room{1, 2}));
}

TEST(SumOfInstancesTest, AFlowOfTwoInstancesCountsOnceAndIsActiveIfBothAcceptedIt) {
    InstanceFigures first = runningInstance();
    InstanceFigures second = runningInstance();
    first.state.sharedFlows = {{1, true}, {2, true}, {3, false}};
    second.state.sharedFlows = {{1, true}, {2, false}};
    InstanceFigures third = runningInstance();
    third.state.sharedFlows = {{3, true}};
    // 4 flows each, and of those active 3 each; two are shared and active at one instance only.
    EXPECT_EQ(sumOf({first, second, third}).state.flowsDeclared, 9U);
    EXPECT_EQ(sumOf({first, second, third}).state.flowsActive, 6U);
    third.state.childUp = false;
    EXPECT_EQ(sumOf({first, second, third}).state.flowsDeclared, 9U);
    EXPECT_EQ(sumOf({first, second, third}).state.flowsActive, 4U);
}

TEST(SumOfInstancesTest, OneInstanceThatIsDownCountsForAll) {
    InstanceFigures down = runningInstance();
    down.state.childUp = false;
    down.state.listening = false;
    down.state.stage = Stage::settingUp;
    down.state.lateralListening = false;
    down.state.lastReport = SystemClock::time_point(std::chrono::seconds(50));
    InstanceFigures up = runningInstance();
    up.state.lateralListening = true;
    const ChildState sum = sumOf({up, down}).state;
    EXPECT_FALSE(sum.childUp);
    EXPECT_TRUE(sum.partlyUp);
    EXPECT_FALSE(sum.listening);
    EXPECT_EQ(sum.lateralListening, false);
    EXPECT_EQ(sum.stage, Stage::settingUp);
    EXPECT_EQ(sum.flowsActive, 3U);
    EXPECT_EQ(sum.lastReport, down.state.lastReport);
}

}  // namespace
}  // namespace vesk::controller
