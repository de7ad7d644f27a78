#include "flow/commands/label_commands.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>

#include <stdexcept>
#include <string>

#include "support/forwarder.h"

namespace vesk {
namespace {

using testing::UnorderedElementsAre;

class LabelCommandsTest : public ForwarderTest {
 protected:
    Outcome set(const std::string& words) { return run(setLabelAttrs, words); }
    Outcome del(const std::string& words) { return run(deleteLabel, words); }

    /// The label's record as its endpoint receives it. The label has no endpoint afterwards.
    FlowDesc recordOf(std::uint32_t label) {
        const EndpointPtr endpoint = createEndpoint(label);
        EXPECT_NE(endpoint, nullptr) << label;
        FlowDesc flow = endpoint ? endpoint->flow : FlowDesc();
        manager().deleteEndpoint(label);
        return flow;
    }

    bool isDeclared(std::uint32_t label) {
        const EndpointPtr endpoint = createEndpoint(label);
        manager().deleteEndpoint(label);
        return endpoint != nullptr;
    }
};

const std::string upstream = " up_ip 127.0.0.1 up_port 4500";

TEST_F(LabelCommandsTest, SetDeclaresALabel) {
    const Outcome outcome = set("label 0x10 up_label 7 is_multiplex true" + upstream);
    EXPECT_TRUE(outcome.succeeded);
    EXPECT_EQ(outcome.printed, "");
    const FlowDesc flow = recordOf(16);
    EXPECT_EQ(flow.label, 16U);
    EXPECT_EQ(flow.up.label, 7U);
    EXPECT_TRUE(flow.isMultiplex);
    EXPECT_EQ(flow.isAuxFlow, 0);
    EXPECT_EQ(flow.up.addrInfo.port(), 4500);
}

TEST_F(LabelCommandsTest, SetNeedsALabel) {
    const Outcome outcome = set("up_label 5");
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_EQ(outcome.printed,
              "error Vesk_setFlowDescLabelAttrs: Invalid Attr,  'label' field is missing\n"
              "error setLabelAttrs: bad command for label 0\n");
}

TEST_F(LabelCommandsTest, SetWithoutWordsNeedsALabelToo) {
    EXPECT_EQ(set("").printed,
              "error Vesk_setFlowDescLabelAttrs: Invalid Attr,  'label' field is missing\n"
              "error setLabelAttrs: bad command for label 0\n");
}

TEST_F(LabelCommandsTest, SetReportsTheLabelReadBeforeTheFailure) {
    EXPECT_EQ(set("label 5 up_label x").printed,
              "error validateLabelLikeString: bad label-like value, 'up_label': bogus labelVal "
              "'x'\nerror setLabelAttrs: bad command for label 5\n");
    EXPECT_EQ(set("label 5 down_label x").printed,
              "error validateLabelLikeString: bad label-like value, 'down_label': bogus labelVal "
              "'x'\nerror setLabelAttrs: bad command for label 0\n");
}

TEST_F(LabelCommandsTest, SetDropsANameWithoutAValue) {
    EXPECT_TRUE(set("label 5 up_label").succeeded);
    EXPECT_EQ(set("label").printed,
              "error Vesk_setFlowDescLabelAttrs: Invalid Attr,  'label' field is missing\n"
              "error setLabelAttrs: bad command for label 0\n");
}

TEST_F(LabelCommandsTest, RefusedSetChangesNothing) {
    declare("label 5 up_label 7" + upstream);
    EXPECT_FALSE(set("label 5 up_label 8 zeta 1").succeeded);
    EXPECT_EQ(recordOf(5).up.label, 7U);
    EXPECT_FALSE(set("label 6 zeta 1" + upstream).succeeded);
    EXPECT_FALSE(isDeclared(6));
}

TEST_F(LabelCommandsTest, SetIgnoresADscpOutOfRange) {
    const Outcome outcome = set("label 5 up_out_dscp_v4 99" + upstream);
    EXPECT_TRUE(outcome.succeeded);
    EXPECT_EQ(outcome.printed, "warn Vesk_validateDscpString: ' Ignore invalid DSCP value: 99'\n");
    EXPECT_EQ(recordOf(5).up.dscpV4, -1);
}

TEST_F(LabelCommandsTest, SetRemovesADscpWhenTheNewOneIsOutOfRange) {
    declare("label 5 up_out_dscp_v4 46 down_out_dscp_v6 7" + upstream);
    EXPECT_TRUE(set("label 5 up_out_dscp_v4 64").succeeded);
    const FlowDesc flow = recordOf(5);
    EXPECT_EQ(flow.up.dscpV4, -1);
    EXPECT_EQ(flow.down.dscpV6, 7);
}

TEST_F(LabelCommandsTest, SecondSetChangesTheNamedMembersOnly) {
    declare("label 5 up_label 7 down_label 8 up_in_key 0102 up_in_algo sha256" + upstream);
    EXPECT_TRUE(set("label 5 up_addrinfo |9000 up_in_algo sha1").succeeded);
    const FlowDesc flow = recordOf(5);
    EXPECT_EQ(flow.up.addrInfo.host(), "127.0.0.1");
    EXPECT_EQ(flow.up.addrInfo.port(), 9000);
    EXPECT_TRUE(flow.up.addrInfo.resolved());
    EXPECT_EQ(flow.up.label, 7U);
    EXPECT_EQ(flow.down.label, 8U);
    EXPECT_EQ(flow.up.inHmac.keyLen, 2U);
    EXPECT_EQ(flow.up.inHmac.algoName, "sha1");
}

TEST_F(LabelCommandsTest, SetRemovesTheLabelsEndpoint) {
    declare("label 5" + upstream);
    EndpointPtr endpoint = createEndpoint(5);
    ASSERT_NE(endpoint, nullptr);
    const int readSocket = endpoint->rdsockfd;
    const int writeSocket = endpoint->wrsockfd;
    declare("label 5 up_label 7");
    EXPECT_EQ(manager().findEndpointByLabel(5), nullptr);
    EXPECT_EQ(manager().findEndpointByFd(readSocket), nullptr);
    EXPECT_EQ(manager().findEndpointByFd(writeSocket), nullptr);
    EXPECT_THAT(takePollRequests(), testing::IsEmpty());
    endpoint.reset();
    EXPECT_THAT(takePollRequests(), UnorderedElementsAre(PollCtlMsg{EPOLL_CTL_DEL, 0, writeSocket},
                                                         PollCtlMsg{EPOLL_CTL_DEL, 0, readSocket}));
}

TEST_F(LabelCommandsTest, SetRegistersAPrefixForItsFirstOwnerOnly) {
    declare("label 5 up_aux_flow_label 0xab000000 down_aux_flow_label_prefix 0x12" + upstream);
    const Outcome second =
        set("label 6 up_aux_flow_label 0xcd000000 down_aux_flow_label_prefix 0x12" + upstream);
    EXPECT_TRUE(second.succeeded);
    EXPECT_EQ(second.printed,
              "warn setLabelAttrs: Aux. flow label prefix added more than once; ignoring; label 6; "
              "label prefix 18\n");
    EXPECT_EQ(recordOf(0x120034).up.label, 0xab000034U);
}

TEST_F(LabelCommandsTest, SetByTheOwnerRegistersItsPrefixAgainWithoutAWarning) {
    declare("label 5 up_aux_flow_label 0xab000000 down_aux_flow_label_prefix 0x12" + upstream);
    EXPECT_EQ(set("label 5 up_label 3").printed, "");
    EXPECT_EQ(recordOf(0x120034).up.label, 0xab000034U);
}

TEST_F(LabelCommandsTest, SetWithoutBothAuxiliaryAttributesRegistersNothing) {
    declare("label 5 up_aux_flow_label 0xab000000" + upstream);
    declare("label 6 down_aux_flow_label_prefix 0x12" + upstream);
    EXPECT_FALSE(isDeclared(0x120034));
    // The second half may come later.
    declare("label 6 up_aux_flow_label 0xcd000000");
    EXPECT_EQ(recordOf(0x120034).up.label, 0xcd000034U);
}

TEST_F(LabelCommandsTest, SetPropagatesAResolverFailure) {
    EXPECT_THROW(set("label 5 up_ip fe80::1::2 up_port 53"), std::runtime_error);
    EXPECT_FALSE(isDeclared(5));
}

TEST_F(LabelCommandsTest, UnresolvableMergeLeavesTheLabelUnchanged) {
    declare("label 5" + upstream);
    EXPECT_THROW(set("label 5 up_ip fe80::1::2"), std::runtime_error);
    // This would block for ever if the lock were still held.
    EXPECT_EQ(recordOf(5).up.addrInfo.host(), "127.0.0.1");
}

TEST_F(LabelCommandsTest, DelRemovesALabel) {
    declare("label 5" + upstream);
    const Outcome outcome = del("label 5");
    EXPECT_TRUE(outcome.succeeded);
    EXPECT_EQ(outcome.printed, "");
    EXPECT_FALSE(isDeclared(5));
}

TEST_F(LabelCommandsTest, DelOfAnUnknownLabelIsNoError) {
    const Outcome outcome = del("label 5");
    EXPECT_TRUE(outcome.succeeded);
    EXPECT_EQ(outcome.printed, "");
}

TEST_F(LabelCommandsTest, DelIgnoresFurtherValidAttributes) {
    declare("label 5" + upstream);
    declare("label 7 up_label 1" + upstream);
    EXPECT_TRUE(del("label 5 up_label 7 up_ip 127.0.0.1").succeeded);
    EXPECT_FALSE(isDeclared(5));
    EXPECT_EQ(recordOf(7).up.label, 1U);
}

TEST_F(LabelCommandsTest, DelRefusesAnUnknownAttribute) {
    declare("label 5" + upstream);
    const Outcome outcome = del("label 5 bogus 1");
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_EQ(outcome.printed,
              "error Vesk_setFlowDescLabelAttrs: Invalid Attr,  name 'bogus' unrecognized\n"
              "error label 0\n");
    EXPECT_TRUE(isDeclared(5));
}

TEST_F(LabelCommandsTest, DelReportsTheLabelReadBeforeTheFailure) {
    EXPECT_EQ(del("label 5 zeta 1").printed,
              "error Vesk_setFlowDescLabelAttrs: Invalid Attr,  name 'zeta' unrecognized\n"
              "error label 5\n");
}

TEST_F(LabelCommandsTest, DelOfLabelZeroIsRefused) {
    const Outcome outcome = del("label 0");
    EXPECT_FALSE(outcome.succeeded);
    EXPECT_EQ(outcome.printed,
              "error validateLabelLikeString: bad label-like value, 'label': reserved labelVal "
              "'0'\nerror label 0\n");
}

TEST_F(LabelCommandsTest, DelNeedsALabel) {
    EXPECT_EQ(del("up_label 5").printed,
              "error Vesk_setFlowDescLabelAttrs: Invalid Attr,  'label' field is missing\n"
              "error label 0\n");
}

TEST_F(LabelCommandsTest, DelOfTheOwnerRemovesItsAuxiliaryFlows) {
    declare("label 5 up_aux_flow_label 0xab000000 down_aux_flow_label_prefix 0x12" + upstream);
    ASSERT_NE(createEndpoint(0x120034), nullptr);
    EXPECT_TRUE(del("label 5").succeeded);
    EXPECT_EQ(manager().findEndpointByLabel(0x120034), nullptr);
    EXPECT_FALSE(isDeclared(0x120034));
}

}  // namespace
}  // namespace vesk
