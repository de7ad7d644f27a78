#include "flow/flow_attributes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

#include "flow/parsed_attributes.h"
#include "support/printed.h"

namespace vesk {
namespace {

using testing::ThrowsMessage;

TEST(FlowAttributeTableTest, HasExactlyTheTwentyTwoAttributes) {
    std::vector<std::string_view> names;
    for (const auto& [name, attribute] : flowAttributeTable()) {
        names.push_back(name);
    }
    EXPECT_THAT(names,
                testing::ElementsAre(
                    "down_addrinfo", "down_aux_flow_label_prefix", "down_in_algo", "down_in_key",
                    "down_label", "down_out_algo", "down_out_dscp_v4", "down_out_dscp_v6",
                    "down_out_key", "is_multiplex", "label", "up_addrinfo", "up_aux_flow_addrinfo",
                    "up_aux_flow_label", "up_in_algo", "up_in_key", "up_label", "up_out_algo",
                    "up_out_dscp_v4", "up_out_dscp_v6", "up_out_key", "up_src_addrinfo"));
}

class AllAttributesTest : public testing::Test {
 protected:
    static ParsedAttributes validateAll(const AttributeMap& attributes) {
        ParsedAttributes outcome;
        errno = 0;
        outcome.printed = printedBy(
            [&] { outcome.accepted = Vesk_setFlowDescLabelAttrs(attributes, outcome.scratch); });
        return outcome;
    }
};

TEST_F(AllAttributesTest, StoresEveryAttribute) {
    const ParsedAttributes outcome =
        validateAll({{"label", "5"}, {"up_label", "6"}, {"is_multiplex", "true"}});
    EXPECT_TRUE(outcome.accepted);
    EXPECT_EQ(outcome.printed, "");
    EXPECT_EQ(outcome.scratch.label, 5U);
    EXPECT_EQ(outcome.scratch.up.label, 6U);
    EXPECT_TRUE(outcome.scratch.isMultiplex);
}

TEST_F(AllAttributesTest, RequiresALabelBeforeItChecksOtherAttributes) {
    const std::string line =
        "error Vesk_setFlowDescLabelAttrs: Invalid Attr,  'label' field is missing\n";
    EXPECT_EQ(validateAll({{"up_label", "6"}}).printed, line);
    EXPECT_EQ(validateAll({{"bogus", "6"}}).printed, line);
    const ParsedAttributes empty = validateAll({});
    EXPECT_FALSE(empty.accepted);
    EXPECT_EQ(empty.printed, line);
}

TEST_F(AllAttributesTest, RefusesUnknownNames) {
    const ParsedAttributes outcome = validateAll({{"bogus", "1"}, {"label", "5"}});
    EXPECT_FALSE(outcome.accepted);
    EXPECT_EQ(outcome.printed,
              "error Vesk_setFlowDescLabelAttrs: Invalid Attr,  name 'bogus' unrecognized\n");
    EXPECT_EQ(outcome.scratch.label, 0U);
}

TEST_F(AllAttributesTest, StopsAtTheFirstRefusedAttributeInTheOrderOfNames) {
    const ParsedAttributes outcome = validateAll(
        {{"down_label", "7"}, {"is_multiplex", "maybe"}, {"label", "5"}, {"zeta", "1"}});
    EXPECT_FALSE(outcome.accepted);
    EXPECT_EQ(outcome.printed,
              "error Vesk_validateIsMultiplexString: ' Bad isMultiplex value: maybe\n");
    EXPECT_EQ(outcome.scratch.down.label, 7U);
    EXPECT_EQ(outcome.scratch.label, 0U);
}

TEST_F(AllAttributesTest, ContinuesAfterAnIgnoredDscp) {
    const ParsedAttributes outcome = validateAll({{"label", "5"}, {"up_out_dscp_v4", "99"}});
    EXPECT_TRUE(outcome.accepted);
    EXPECT_EQ(outcome.printed, "warn Vesk_validateDscpString: ' Ignore invalid DSCP value: 99'\n");
    EXPECT_EQ(outcome.scratch.up.dscpV4, -1);
}

class ByNameTest : public testing::Test {
 protected:
    FlowDesc flow;
};

TEST_F(ByNameTest, FindsLabels) {
    EXPECT_EQ(&refLabelByName(flow, "label"), &flow.label);
    EXPECT_EQ(&refLabelByName(flow, "down_label"), &flow.down.label);
    EXPECT_EQ(&refLabelByName(flow, "up_label"), &flow.up.label);
    EXPECT_EQ(&refLabelByName(flow, "up_aux_flow_label"), &flow.upAuxFlowLabel);
}

TEST_F(ByNameTest, FindsAddresses) {
    EXPECT_EQ(&refAddrInfoByName(flow, "down_addrinfo"), &flow.down.addrInfo);
    EXPECT_EQ(&refAddrInfoByName(flow, "up_addrinfo"), &flow.up.addrInfo);
    EXPECT_EQ(&refAddrInfoByName(flow, "up_src_addrinfo"), &flow.up.srcAddrInfo);
    EXPECT_EQ(&refAddrInfoByName(flow, "up_aux_flow_addrinfo"), &flow.upAuxFlowAddrInfo);
}

TEST_F(ByNameTest, FindsKeyRecordsByKeyAndByAlgorithm) {
    EXPECT_EQ(&refHmacInfoByName(flow, "down_in_key"), &flow.down.inHmac);
    EXPECT_EQ(&refHmacInfoByName(flow, "down_in_algo"), &flow.down.inHmac);
    EXPECT_EQ(&refHmacInfoByName(flow, "down_out_key"), &flow.down.outHmac);
    EXPECT_EQ(&refHmacInfoByName(flow, "down_out_algo"), &flow.down.outHmac);
    EXPECT_EQ(&refHmacInfoByName(flow, "up_in_key"), &flow.up.inHmac);
    EXPECT_EQ(&refHmacInfoByName(flow, "up_in_algo"), &flow.up.inHmac);
    EXPECT_EQ(&refHmacInfoByName(flow, "up_out_key"), &flow.up.outHmac);
    EXPECT_EQ(&refHmacInfoByName(flow, "up_out_algo"), &flow.up.outHmac);
}

TEST_F(ByNameTest, FindsDscpValues) {
    EXPECT_EQ(&refDscpByName(flow, "down_out_dscp_v4"), &flow.down.dscpV4);
    EXPECT_EQ(&refDscpByName(flow, "down_out_dscp_v6"), &flow.down.dscpV6);
    EXPECT_EQ(&refDscpByName(flow, "up_out_dscp_v4"), &flow.up.dscpV4);
    EXPECT_EQ(&refDscpByName(flow, "up_out_dscp_v6"), &flow.up.dscpV6);
}

TEST_F(ByNameTest, ThrowsForTheNameOfAnotherKind) {
    EXPECT_THAT([this] { refLabelByName(flow, "up_addrinfo"); },
                ThrowsMessage<std::invalid_argument>("refLabelByName: Unknown name: up_addrinfo"));
    EXPECT_THAT([this] { refAddrInfoByName(flow, "label"); },
                ThrowsMessage<std::invalid_argument>("refAddrInfoByName: Unknown name: label"));
    EXPECT_THAT([this] { refHmacInfoByName(flow, "up_label"); },
                ThrowsMessage<std::invalid_argument>("refHmacInfoByName: Unknown name: up_label"));
    EXPECT_THAT([this] { refDscpByName(flow, ""); },
                ThrowsMessage<std::invalid_argument>("refDscpByName: Unknown name: "));
}

TEST_F(ByNameTest, MatchesNamesExactly) {
    EXPECT_THROW(refLabelByName(flow, "Label"), std::invalid_argument);
    EXPECT_THROW(refLabelByName(flow, "down_aux_flow_label_prefix"), std::invalid_argument);
    EXPECT_THROW(refAddrInfoByName(flow, "down_src_addrinfo"), std::invalid_argument);
    EXPECT_THROW(refDscpByName(flow, "up_out_dscp_v4 "), std::invalid_argument);
}

}  // namespace
}  // namespace vesk
