#include "metrics/report_totals.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vesk::controller {
namespace {

using testing::ElementsAre;
using testing::Key;

using Names = std::map<std::uint32_t, std::string>;

// Six different numbers, so that no counter can be confused with another.
DatagramCounters counters(std::uint64_t first) {
    return {first, first + 1, first + 2, first + 3, first + 4, first + 5};
}

Report withFlows(std::vector<FlowRow> flows) {
    Report report;
    report.totals.sockets = flows.size();
    report.flows = std::move(flows);
    return report;
}

Report withDownstream(std::uint64_t first) {
    Report report;
    report.downstream = counters(first);
    return report;
}

TEST(ReportTotalsTest, BeginsWithTheFirstReport) {
    ReportTotals totals(false);
    Report report = withFlows({{5, counters(10)}, {6, counters(100)}});
    report.downstream = counters(1000);
    report.lateral = counters(2000);
    totals.add(report, {});
    EXPECT_EQ(totals.totals().downstream, counters(1000));
    EXPECT_EQ(totals.totals().lateral, counters(2000));
    EXPECT_EQ(totals.totals().upstream, (DatagramCounters{110, 112, 114, 116, 118, 120}));
    EXPECT_EQ(totals.totals().flowSockets, 2U);
}

TEST(ReportTotalsTest, AddsOnlyTheIncrease) {
    ReportTotals totals(false);
    totals.add(withDownstream(10), {});
    totals.add(withDownstream(10), {});
    totals.add(withDownstream(17), {});
    EXPECT_EQ(totals.totals().downstream, counters(17));
}

// Every counter of the new socket began at 0, even one that already exceeds its old value.
TEST(ReportTotalsTest, CountsANewSocketFromZero) {
    ReportTotals totals(false);
    Report report;
    report.downstream = DatagramCounters{100, 0, 2, 0, 0, 0};
    totals.add(report, {});
    report.downstream = DatagramCounters{60, 0, 5, 0, 0, 0};
    totals.add(report, {});
    EXPECT_EQ(totals.totals().downstream, (DatagramCounters{160, 0, 7, 0, 0, 0}));
}

TEST(ReportTotalsTest, CountsANewSocketFromZeroAfterAReportWithoutOne) {
    ReportTotals totals(false);
    totals.add(withDownstream(10), {});
    totals.add(Report(), {});
    totals.add(withDownstream(20), {});
    EXPECT_EQ(totals.totals().downstream, (DatagramCounters{30, 32, 34, 36, 38, 40}));
}

TEST(ReportTotalsTest, CountsANewChildFromZero) {
    ReportTotals totals(false);
    totals.add(withDownstream(10), {});
    totals.childStarted();
    totals.add(withDownstream(15), {});
    EXPECT_EQ(totals.totals().downstream.received, 25U);
}

TEST(ReportTotalsTest, KeepsTheCountsOfAFormerFlow) {
    ReportTotals totals(false);
    totals.add(withFlows({{5, counters(10)}, {6, counters(100)}}), {});
    totals.add(withFlows({{6, counters(100)}}), {});
    EXPECT_EQ(totals.totals().upstream.received, 110U);
    totals.add(withFlows({{5, counters(12)}, {6, counters(100)}}), {});
    EXPECT_EQ(totals.totals().upstream.received, 122U);
    EXPECT_TRUE(totals.totals().flows.empty());
}

TEST(ReportTotalsTest, KeepsEachFlowOnRequest) {
    ReportTotals totals(true);
    totals.add(withFlows({{5, counters(10)}}), {{5, "alice"}, {6, "bob"}});
    totals.add(withFlows({{5, counters(13)}, {6, counters(1)}}), {{5, "alice"}, {6, "bob"}});
    EXPECT_THAT(totals.totals().flows, ElementsAre(Key(5), Key(6)));
    EXPECT_EQ(totals.totals().flows.at(5).counters, counters(13));
    EXPECT_EQ(totals.totals().flows.at(5).name, "alice");
    EXPECT_EQ(totals.totals().flows.at(6).counters, counters(1));
}

TEST(ReportTotalsTest, KeepsDeclaredFlowsWithoutASocket) {
    ReportTotals totals(true);
    const Names names{{5, "alice"}};
    totals.add(withFlows({{5, counters(10)}}), names);
    totals.add(withFlows({}), names);
    EXPECT_EQ(totals.totals().flows.at(5).counters, counters(10));
    totals.add(withFlows({{5, counters(20)}}), names);
    EXPECT_EQ(totals.totals().flows.at(5).counters.received, 30U);
}

TEST(ReportTotalsTest, ForgetsUndeclaredFlowsWithoutASocket) {
    ReportTotals totals(true);
    totals.add(withFlows({{5, counters(10)}, {7, counters(20)}}), {{5, "alice"}});
    EXPECT_EQ(totals.totals().flows.at(7).name, "");
    totals.add(withFlows({{5, counters(10)}}), {{5, "alice"}});
    EXPECT_THAT(totals.totals().flows, ElementsAre(Key(5)));
    EXPECT_EQ(totals.totals().upstream.received, 30U);
}

TEST(ReportTotalsTest, FollowsTheNamesOfTheFlows) {
    ReportTotals totals(true);
    const Report report = withFlows({{5, counters(10)}});
    totals.add(report, {{5, "alice"}});
    totals.add(report, {{5, "carol"}});
    EXPECT_EQ(totals.totals().flows.at(5).name, "carol");
    totals.add(report, {});
    EXPECT_EQ(totals.totals().flows.at(5).name, "");
}

TEST(ReportTotalsTest, AddsUpTheWorkers) {
    ReportTotals totals(false);
    Report report;
    report.workers = {{10, 11, 12}, {20, 21, 22}};
    totals.add(report, {});
    report.workers = {{13, 11, 12}, {20, 21, 27}};
    totals.add(report, {});
    ASSERT_EQ(totals.totals().workers.size(), 2U);
    EXPECT_EQ(totals.totals().workers[0].wakeUps, 13U);
    EXPECT_EQ(totals.totals().workers[0].queuedSockets, 11U);
    EXPECT_EQ(totals.totals().workers[1].received, 27U);
}

TEST(ReportTotalsTest, HandlesAWrappedQueueCounter) {
    ReportTotals totals(false);
    Report report;
    report.workers = {{1, 4294967290, 1}};
    totals.add(report, {});
    report.workers = {{2, 4, 2}};
    totals.add(report, {});
    EXPECT_EQ(totals.totals().workers[0].queuedSockets, 4294967300U);
    totals.childStarted();
    totals.add(report, {});
    EXPECT_EQ(totals.totals().workers[0].queuedSockets, 4294967304U);
}

TEST(ReportTotalsTest, AddsUpThePollEventsAndShowsTheArmedSockets) {
    ReportTotals totals(false);
    Report report;
    report.poll = {3, 4, 5, 6};
    totals.add(report, {});
    report.poll = {-1, 7, 5, 8};
    totals.add(report, {});
    EXPECT_EQ(totals.totals().armedSockets, -1);
    EXPECT_EQ(totals.totals().readEvents, 7U);
    EXPECT_EQ(totals.totals().writeEvents, 5U);
    EXPECT_EQ(totals.totals().errorEvents, 8U);
}

// The kernel's figures arrive between reports.
TEST(ReportTotalsTest, AddsUpTheDropsOfEachFlow) {
    ReportTotals totals(true);
    totals.addFlowSockets({{16, {{1, 20, 30}, 5}}});
    totals.add(Report(), {{16, "alice"}});
    totals.addFlowSockets({{16, {{1, 21, 31}, 2}}});
    const FlowTotals& alice = totals.totals().flows.at(16);
    EXPECT_EQ(alice.kernelDrops, 7U);
    EXPECT_EQ(alice.socket, (SocketFigures{1, 21, 31}));
    totals.addFlowSockets({});
    EXPECT_EQ(alice.kernelDrops, 7U);
    EXPECT_EQ(alice.socket, SocketFigures());
}

TEST(ReportTotalsTest, KeepsFlowSocketsOnlyOnRequest) {
    ReportTotals totals(false);
    totals.addFlowSockets({{16, {{1, 20, 30}, 5}}});
    EXPECT_TRUE(totals.totals().flows.empty());
}

}  // namespace
}  // namespace vesk::controller
