#include "flow/flow_desc.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/printed.h"

namespace vesk {
namespace {

TEST(FlowDescTest, HasTheDocumentedDefaults) {
    const FlowDesc flow(7);
    EXPECT_EQ(flow.label, 7U);
    EXPECT_EQ(flow.isAuxFlow, 0);
    EXPECT_FALSE(flow.isMultiplex);
    EXPECT_EQ(flow.downAuxFlowLabelPrefix, 0);
    EXPECT_EQ(flow.upAuxFlowLabel, 0U);
    EXPECT_FALSE(flow.upAuxFlowAddrInfo.resolved());
    for (const FlowDirDesc* side : {&flow.down, &flow.up}) {
        EXPECT_EQ(side->label, 0U);
        EXPECT_FALSE(side->inHmac.hasKey());
        EXPECT_FALSE(side->outHmac.hasKey());
        EXPECT_EQ(side->addrInfo.host(), "");
        EXPECT_EQ(side->srcAddrInfo.host(), "");
        EXPECT_EQ(side->dscpV4, -1);
        EXPECT_EQ(side->dscpV6, -1);
    }
    EXPECT_EQ(FlowDesc().label, 0U);
}

/// A record in which every member differs from its default.
FlowDesc fullFlow() {
    FlowDesc flow(99);
    flow.isMultiplex = true;
    for (FlowDirDesc* side : {&flow.down, &flow.up}) {
        side->inHmac.setKey(std::vector<std::uint8_t>{1, 2});
        side->inHmac.setAlgorithm(hmacSha256);
        side->outHmac.setKey(std::vector<std::uint8_t>{3});
        side->outHmac.setAlgorithm(hmacSha256);
        side->label = 11;
        side->addrInfo = IPAddrInfo("127.0.0.1", 4500);
        side->srcAddrInfo = IPAddrInfo("127.0.0.2", 4501);
        side->dscpV4 = 12;
        side->dscpV6 = 13;
    }
    flow.downAuxFlowLabelPrefix = 14;
    flow.upAuxFlowLabel = 15;
    flow.upAuxFlowAddrInfo = IPAddrInfo("::1", 4502);
    return flow;
}

bool sameKey(const HmacInfo& left, const HmacInfo& right) {
    return left.keyLen == right.keyLen && left.key == right.key;
}

bool sameAlgorithm(const HmacInfo& left, const HmacInfo& right) {
    return left.algoName == right.algoName && left.digest == right.digest;
}

bool sameAddress(const IPAddrInfo& left, const IPAddrInfo& right) {
    return left.host() == right.host() && left.port() == right.port() &&
           left.family() == right.family() && left.socketAddress() == right.socketAddress();
}

/// A member that an attribute sets, with a function that compares only this member.
struct Member {
    std::string name;
    std::function<bool(const FlowDesc&, const FlowDesc&)> same;
};

const std::vector<Member>& members() {
    using Flow = const FlowDesc&;
    static const std::vector<Member> all{
        {"down_addrinfo",
         [](Flow a, Flow b) { return sameAddress(a.down.addrInfo, b.down.addrInfo); }},
        {"down_aux_flow_label_prefix",
         [](Flow a, Flow b) { return a.downAuxFlowLabelPrefix == b.downAuxFlowLabelPrefix; }},
        {"down_in_algo",
         [](Flow a, Flow b) { return sameAlgorithm(a.down.inHmac, b.down.inHmac); }},
        {"down_in_key", [](Flow a, Flow b) { return sameKey(a.down.inHmac, b.down.inHmac); }},
        {"down_label", [](Flow a, Flow b) { return a.down.label == b.down.label; }},
        {"down_out_algo",
         [](Flow a, Flow b) { return sameAlgorithm(a.down.outHmac, b.down.outHmac); }},
        {"down_out_dscp_v4", [](Flow a, Flow b) { return a.down.dscpV4 == b.down.dscpV4; }},
        {"down_out_dscp_v6", [](Flow a, Flow b) { return a.down.dscpV6 == b.down.dscpV6; }},
        {"down_out_key", [](Flow a, Flow b) { return sameKey(a.down.outHmac, b.down.outHmac); }},
        {"is_multiplex", [](Flow a, Flow b) { return a.isMultiplex == b.isMultiplex; }},
        {"label", [](Flow a, Flow b) { return a.label == b.label; }},
        {"up_addrinfo", [](Flow a, Flow b) { return sameAddress(a.up.addrInfo, b.up.addrInfo); }},
        {"up_aux_flow_addrinfo",
         [](Flow a, Flow b) { return sameAddress(a.upAuxFlowAddrInfo, b.upAuxFlowAddrInfo); }},
        {"up_aux_flow_label", [](Flow a, Flow b) { return a.upAuxFlowLabel == b.upAuxFlowLabel; }},
        {"up_in_algo", [](Flow a, Flow b) { return sameAlgorithm(a.up.inHmac, b.up.inHmac); }},
        {"up_in_key", [](Flow a, Flow b) { return sameKey(a.up.inHmac, b.up.inHmac); }},
        {"up_label", [](Flow a, Flow b) { return a.up.label == b.up.label; }},
        {"up_out_algo", [](Flow a, Flow b) { return sameAlgorithm(a.up.outHmac, b.up.outHmac); }},
        {"up_out_dscp_v4", [](Flow a, Flow b) { return a.up.dscpV4 == b.up.dscpV4; }},
        {"up_out_dscp_v6", [](Flow a, Flow b) { return a.up.dscpV6 == b.up.dscpV6; }},
        {"up_out_key", [](Flow a, Flow b) { return sameKey(a.up.outHmac, b.up.outHmac); }},
        {"up_src_addrinfo",
         [](Flow a, Flow b) { return sameAddress(a.up.srcAddrInfo, b.up.srcAddrInfo); }},
    };
    return all;
}

class UpdateTest : public testing::TestWithParam<Member> {};

TEST_P(UpdateTest, CopiesOnlyTheNamedMember) {
    const FlowDesc from = fullFlow();
    const FlowDesc untouched(5);
    FlowDesc flow(5);
    EXPECT_EQ(printedBy([&] { flow.update(from, {GetParam().name}); }), "");
    for (const Member& member : members()) {
        const bool taken = member.name == GetParam().name && member.name != "label";
        EXPECT_EQ(member.same(flow, from), taken) << member.name;
        EXPECT_EQ(member.same(flow, untouched), !taken) << member.name;
    }
    EXPECT_FALSE(flow.down.srcAddrInfo.resolved());
    EXPECT_EQ(flow.isAuxFlow, 0);
}

INSTANTIATE_TEST_SUITE_P(AllMembers, UpdateTest, testing::ValuesIn(members()),
                         [](const auto& row) { return row.param.name; });

TEST(FlowDescUpdateTest, HasTwentyTwoMembers) {
    EXPECT_EQ(members().size(), 22U);
}

TEST(FlowDescUpdateTest, CopiesAllNamedMembers) {
    const FlowDesc from = fullFlow();
    std::vector<std::string> names;
    for (const Member& member : members()) {
        names.push_back(member.name);
    }
    FlowDesc flow(5);
    flow.update(from, names);
    EXPECT_EQ(flow.label, 5U);
    for (const Member& member : members()) {
        EXPECT_EQ(member.same(flow, from), member.name != "label") << member.name;
    }
}

TEST(FlowDescUpdateTest, CopiesDefaultsToo) {
    FlowDesc flow = fullFlow();
    flow.update(FlowDesc(), {"up_out_dscp_v4", "is_multiplex", "up_in_key", "up_label"});
    EXPECT_EQ(flow.up.dscpV4, -1);
    EXPECT_FALSE(flow.isMultiplex);
    EXPECT_FALSE(flow.up.inHmac.hasKey());
    EXPECT_EQ(flow.up.label, 0U);
}

TEST(FlowDescUpdateTest, KeepsTheOldPortIfTheNewAddressHasNone) {
    FlowDesc from;
    from.up.addrInfo = IPAddrInfo("127.0.0.9", 0);
    FlowDesc flow = fullFlow();
    flow.update(from, {"up_addrinfo"});
    EXPECT_EQ(flow.up.addrInfo.host(), "127.0.0.9");
    EXPECT_EQ(flow.up.addrInfo.port(), 4500);
    EXPECT_TRUE(flow.up.addrInfo.resolved());
}

TEST(FlowDescUpdateTest, KeepsTheOldHostIfTheNewAddressHasNone) {
    FlowDesc from;
    from.upAuxFlowAddrInfo = IPAddrInfo("", 9000);
    FlowDesc flow = fullFlow();
    flow.update(from, {"up_aux_flow_addrinfo"});
    EXPECT_EQ(flow.upAuxFlowAddrInfo.host(), "::1");
    EXPECT_EQ(flow.upAuxFlowAddrInfo.port(), 9000);
    EXPECT_EQ(flow.upAuxFlowAddrInfo.family(), AF_INET6);
}

TEST(FlowDescUpdateTest, ReportsUnknownNamesAndContinues) {
    FlowDesc flow;
    const FlowDesc from = fullFlow();
    EXPECT_EQ(printedBy([&] {
                  flow.update(from, {"bogus", "up_ip", "up_label"});
              }),
              "info update: Unhandled FlowDesc update for member: bogus\n"
              "info update: Unhandled FlowDesc update for member: up_ip\n");
    EXPECT_EQ(flow.up.label, 11U);
}

}  // namespace
}  // namespace vesk
