#include "traffic/datagram_pool.h"

#include <gtest/gtest.h>

#include "lib/authentication.h"

namespace vesk::bench {
namespace {

std::vector<FlowPlan> threeFlows() {
    FlowPlanOptions options;
    options.flows = 3;
    options.upPort = 5000;
    return makeFlowPlans(options);
}

std::vector<std::size_t> flowsOf(const DatagramPool& pool) {
    std::vector<std::size_t> flows;
    for (std::size_t number = 0; number < pool.size(); ++number) {
        flows.push_back(pool.flowOf(number));
    }
    return flows;
}

TEST(DatagramPoolTest, FlowsTakeTurnsWithTheirBursts) {
    const auto plans = threeFlows();
    EXPECT_EQ(flowsOf(DatagramPool(udpV2, plans, 100, 6, 1)),
              (std::vector<std::size_t>{0, 1, 2, 0, 1, 2}));
    EXPECT_EQ(flowsOf(DatagramPool(udpV2, plans, 100, 12, 2)),
              (std::vector<std::size_t>{0, 0, 1, 1, 2, 2, 0, 0, 1, 1, 2, 2}));
}

TEST(DatagramPoolTest, EachDatagramIsNumberedAndSignedForItsFlow) {
    const auto plans = threeFlows();
    const DatagramPool pool(udpV2, plans, 100, 12, 2);
    for (std::size_t number = 0; number < pool.size(); ++number) {
        const FlowPlan& plan = plans[number / 2 % 3];
        EXPECT_EQ(pool.numberIn(pool.request(number)), number);
        EXPECT_EQ(readLabel(udpV2, pool.request(number)), plan.label);
        OneCallHmac requests(plan.downIn);
        EXPECT_TRUE(checkDatagram(requests, udpV2, pool.request(number), udpV2.headerSize));
        OneCallHmac replies(plan.upIn);
        EXPECT_TRUE(checkDatagram(replies, udpV2, pool.reply(number), udpV2.headerSize));
    }
}

TEST(DatagramPoolTest, AGenerationFollowsAnotherWithTheSameFlows) {
    auto plans = threeFlows();
    FlowPlanOptions next;
    next.flows = 3;
    next.labelBase = 0x20000;
    next.seed = 2;
    for (const FlowPlan& plan : makeFlowPlans(next)) {
        plans.push_back(plan);
    }
    const DatagramPool pool(udpV2, plans, 100, 6, 1, 2);
    EXPECT_EQ(pool.size(), 6U);
    ASSERT_EQ(pool.numbers(), 12U);
    for (std::size_t number = 0; number < pool.numbers(); ++number) {
        const FlowPlan& plan = plans[number / 6 * 3 + number % 3];
        EXPECT_EQ(pool.flowOf(number), number % 3);
        EXPECT_EQ(pool.planOf(number).label, plan.label);
        EXPECT_EQ(pool.numberIn(pool.reply(number)), number);
        EXPECT_EQ(readLabel(udpV2, pool.request(number)), plan.label);
        OneCallHmac requests(plan.downIn);
        EXPECT_TRUE(checkDatagram(requests, udpV2, pool.request(number), udpV2.headerSize));
    }
}

}  // namespace
}  // namespace vesk::bench
