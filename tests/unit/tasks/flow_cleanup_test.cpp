#include "tasks/flow_cleanup.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>

#include <string>

#include "support/forwarder.h"
#include "support/printed.h"

namespace vesk {
namespace {

using testing::SizeIs;

class FlowCleanUpTest : public ForwarderTest {
 protected:
    void SetUp() override {
        ForwarderTest::SetUp();
        declare(
            "label 0xab up_ip 127.0.0.1 up_port 4500 up_aux_flow_label 0x10000 "
            "down_aux_flow_label_prefix 0x12");
        ASSERT_NE(createEndpoint(0xab), nullptr);
        ASSERT_NE(createEndpoint(0x120034), nullptr);
    }

    std::string pass(CleanUpSwitches switches) {
        const AtLogLevel level("debug");
        return printedBy([&] { cleanUp(switches); });
    }

    void cleanUp(CleanUpSwitches switches) {
        cleanUpFlows(manager(), switches, [](const std::vector<EndpointPtr>&) {});
    }
};

constexpr CleanUpSwitches both{true, true};
const std::string polled = "debug Successfully sent fd [0-9]+ \\(del\\) to poll loop\n";

TEST_F(FlowCleanUpTest, ExpiresAFlowThatWasIdleForAWholePeriod) {
    EXPECT_EQ(pass(both), "");
    EXPECT_THAT(manager().endpoints(), SizeIs(2));
    EXPECT_THAT(pass(both), testing::MatchesRegex(
                                "debug Expiring label 0xab/171 of flow type \\[main\\]: closing "
                                "upstream endpoint and cleaning up\n"
                                "debug Expiring label 0x120034/1179700 of flow type \\[aux\\]: "
                                "closing upstream endpoint and cleaning up\n" +
                                polled + polled + polled + polled));
    EXPECT_THAT(manager().endpoints(), testing::IsEmpty());
    EXPECT_EQ(pass(both), "");
}

TEST_F(FlowCleanUpTest, AsksThePollLoopToCloseTheSockets) {
    pass(both);
    EXPECT_THAT(takePollRequests(), testing::IsEmpty());
    pass(both);
    const std::vector<PollCtlMsg> requests = takePollRequests();
    EXPECT_THAT(requests, SizeIs(4));
    EXPECT_THAT(requests, testing::Each(testing::Field(&PollCtlMsg::op, EPOLL_CTL_DEL)));
}

TEST_F(FlowCleanUpTest, KeepsTheSocketsOfAHeldFlowOpen) {
    const EndpointPtr held = manager().findEndpointByLabel(0xab);
    pass(both);
    pass(both);
    EXPECT_EQ(manager().findEndpointByLabel(0xab), nullptr);
    EXPECT_TRUE(isOpen(held->rdsockfd));
}

TEST_F(FlowCleanUpTest, DoesNothingWithBothSwitchesOff) {
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(pass({false, false}), "");
    }
    EXPECT_FALSE(manager().findEndpointByLabel(0xab)->idle);
    EXPECT_THAT(manager().endpoints(), SizeIs(2));
}

TEST_F(FlowCleanUpTest, ExpiresMainFlowsOnly) {
    pass({true, false});
    EXPECT_THAT(pass({true, false}), testing::StartsWith("debug Expiring label 0xab/171 of"));
    EXPECT_EQ(manager().findEndpointByLabel(0xab), nullptr);
    EXPECT_NE(manager().findEndpointByLabel(0x120034), nullptr);
}

TEST_F(FlowCleanUpTest, ExpiresAuxiliaryFlowsOnly) {
    pass({false, true});
    EXPECT_THAT(pass({false, true}), testing::StartsWith("debug Expiring label 0x120034/1179700"));
    EXPECT_NE(manager().findEndpointByLabel(0xab), nullptr);
    EXPECT_EQ(manager().findEndpointByLabel(0x120034), nullptr);
}

TEST_F(FlowCleanUpTest, KeepsAFlowThatHadTraffic) {
    pass(both);
    manager().findEndpointByLabel(0xab)->markActive();
    pass(both);
    EXPECT_NE(manager().findEndpointByLabel(0xab), nullptr);
    EXPECT_TRUE(manager().findEndpointByLabel(0xab)->idle);
}

TEST_F(FlowCleanUpTest, IsSilentByDefault) {
    EXPECT_EQ(printedBy([this] {
                  cleanUp(both);
                  cleanUp(both);
              }),
              "");
}

}  // namespace
}  // namespace vesk
