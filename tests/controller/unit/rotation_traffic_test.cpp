#include "service/rotation_traffic.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "configuration_text.h"

namespace vesk::controller {
namespace {

using testing::ElementsAre;
using testing::Pair;

const std::string rotatedFlow = "[flows.a]\nlabel = 1\nupstream = \"127.0.0.1:1\"\n";
const std::string otherFlow = "[flows.b]\nlabel = 3\nupstream = \"127.0.0.1:1\"\n";

RotationTraffic trafficOf(const std::string& flows) {
    RotationTraffic traffic;
    traffic.take(listeningWith(flows).flows);
    return traffic;
}

/// A socket with these counters: sent, dropped, replies sent, replies dropped. Others are refused
/// or unchecked datagrams.
FlowRow row(std::uint32_t label, std::uint64_t sent, std::uint64_t dropped = 0,
            std::uint64_t repliesSent = 0, std::uint64_t repliesDropped = 0) {
    return {label, {1000, sent, 1000, dropped, repliesSent, repliesDropped}};
}

Report reportOf(std::vector<FlowRow> rows) {
    Report report;
    report.flows = std::move(rows);
    return report;
}

TEST(RotationTraffic, IsThatOfBothLabelsOfAFlow) {
    RotationTraffic traffic = trafficOf(rotatedFlow + "next = { label = 2 }\n" + otherFlow);
    EXPECT_FALSE(traffic.read());
    traffic.observe(reportOf({row(1, 5, 1, 3, 1), row(3, 9)}));
    EXPECT_THAT(traffic.read()->labels,
                ElementsAre(Pair(1U, LabelTraffic{6, 4}), Pair(2U, LabelTraffic{0, 0})));
    EXPECT_FALSE(traffic.read());
    traffic.observe(reportOf({row(1, 5, 1, 3, 2), row(2, 7), row(3, 10)}));
    EXPECT_THAT(traffic.read()->labels,
                ElementsAre(Pair(1U, LabelTraffic{0, 1}), Pair(2U, LabelTraffic{7, 0})));
}

TEST(RotationTraffic, AddsReportsUpUntilItIsRead) {
    RotationTraffic traffic = trafficOf(rotatedFlow + "next = { label = 2 }\n");
    traffic.observe(reportOf({row(1, 5)}));
    traffic.observe(reportOf({row(1, 8), row(2, 1)}));
    const ObservedTraffic seen = *traffic.read();
    EXPECT_TRUE(seen.isFirst);
    EXPECT_THAT(seen.labels,
                ElementsAre(Pair(1U, LabelTraffic{8, 0}), Pair(2U, LabelTraffic{1, 0})));
}

TEST(RotationTraffic, CountsANewSocketFromZero) {
    RotationTraffic traffic = trafficOf(rotatedFlow + "next = { label = 2 }\n");
    traffic.observe(reportOf({row(1, 5)}));
    traffic.observe(reportOf({}));
    EXPECT_EQ(traffic.read()->labels.at(1).requests, 5U);
    traffic.observe(reportOf({row(1, 3)}));
    EXPECT_EQ(traffic.read()->labels.at(1).requests, 3U);
    traffic.restart();
    traffic.observe(reportOf({row(1, 3)}));
    const ObservedTraffic seen = *traffic.read();
    EXPECT_TRUE(seen.isFirst);
    EXPECT_EQ(seen.labels.at(1).requests, 3U);
    traffic.observe(reportOf({row(1, 3)}));
    EXPECT_FALSE(traffic.read()->isFirst);
}

TEST(RotationTraffic, IncludesAuxiliaryFlows) {
    RotationTraffic traffic =
        trafficOf(rotatedFlow +
                  "auxiliary = { prefix = 5, upstream_label = 1 }\n"
                  "next = { label = 2, auxiliary = { prefix = 6, upstream_label = 1 } }\n"
                  "[flows.b]\nlabel = 0x50001\nupstream = \"127.0.0.1:1\"\n");
    traffic.observe(reportOf({row(2, 1), row(0x50001, 7), row(0x50002, 4), row(0x60001, 2)}));
    EXPECT_THAT(traffic.read()->labels,
                ElementsAre(Pair(1U, LabelTraffic{4, 0}), Pair(2U, LabelTraffic{3, 0})));
}

TEST(RotationTraffic, IsNotReadWithoutAFlowThatChanges) {
    RotationTraffic traffic = trafficOf(otherFlow);
    traffic.observe(reportOf({row(3, 1)}));
    EXPECT_FALSE(traffic.read());
}

}  // namespace
}  // namespace vesk::controller
