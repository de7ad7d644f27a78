// The accepted and refused values of each kind of attribute, parsed through the attribute table.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

#include "flow/flow_attributes.h"
#include "flow/parsed_attributes.h"
#include "support/printed.h"

namespace vesk {
namespace {

/// Parses one attribute with the parser in its table row.
ParsedAttributes validate(const std::string& name, const std::string& value,
                          const FlowDesc& before = FlowDesc()) {
    ParsedAttributes outcome{false, "", before};
    errno = 0;
    outcome.printed = printedBy([&] {
        outcome.accepted = flowAttributeTable().at(name).parse(name, value, outcome.scratch);
    });
    return outcome;
}

void expectRefused(const std::string& name, const std::string& value, const std::string& line) {
    const ParsedAttributes outcome = validate(name, value);
    EXPECT_FALSE(outcome.accepted) << name << " " << value;
    EXPECT_EQ(outcome.printed, line) << name << " " << value;
}

FlowDesc expectAccepted(const std::string& name, const std::string& value) {
    ParsedAttributes outcome = validate(name, value);
    EXPECT_TRUE(outcome.accepted) << name << " " << value;
    EXPECT_EQ(outcome.printed, "") << name << " " << value;
    return std::move(outcome.scratch);
}

TEST(LabelAttributeTest, StoresNumbersInAnyBase) {
    EXPECT_EQ(expectAccepted("label", "0x10").label, 16U);
    EXPECT_EQ(expectAccepted("label", "010").label, 8U);
    EXPECT_EQ(expectAccepted("label", "4294967295").label, 4294967295U);
    EXPECT_EQ(expectAccepted("down_label", "1").down.label, 1U);
    EXPECT_EQ(expectAccepted("up_label", "2").up.label, 2U);
    EXPECT_EQ(expectAccepted("up_aux_flow_label", "0xabcd0000").upAuxFlowLabel, 0xabcd0000U);
    EXPECT_EQ(expectAccepted("down_aux_flow_label_prefix", "65535").downAuxFlowLabelPrefix, 65535);
}

const std::string labelPrefix = "error validateLabelLikeString: bad label-like value, ";

TEST(LabelAttributeTest, RefusesAValueThatIsNotANumber) {
    expectRefused("label", "10abc", labelPrefix + "'label': bogus labelVal '10abc'\n");
    expectRefused("down_aux_flow_label_prefix", "x",
                  labelPrefix + "'down_aux_flow_label_prefix': bogus labelVal 'x'\n");
    expectRefused("up_label", "18446744073709551616",
                  labelPrefix + "'up_label': bogus labelVal '18446744073709551616'\n");
}

TEST(LabelAttributeTest, RefusesZero) {
    expectRefused("label", "0", labelPrefix + "'label': reserved labelVal '0'\n");
    expectRefused("up_aux_flow_label", "0x0",
                  labelPrefix + "'up_aux_flow_label': reserved labelVal '0x0'\n");
    expectRefused("down_aux_flow_label_prefix", "",
                  labelPrefix + "'down_aux_flow_label_prefix': reserved labelVal ''\n");
}

TEST(LabelAttributeTest, RefusesANumberThatIsTooLarge) {
    expectRefused("label", "4294967296",
                  labelPrefix + "'label': illegal labelVal '4294967296' exceeds '4294967295'\n");
    expectRefused("down_aux_flow_label_prefix", "65536",
                  labelPrefix +
                      "'down_aux_flow_label_prefix': illegal labelVal '65536' exceeds "
                      "'65535'\n");
}

TEST(LabelAttributeTest, RefusesANegativeNumberAsTooLarge) {
    expectRefused("down_label", "-1",
                  labelPrefix + "'down_label': illegal labelVal '-1' exceeds '4294967295'\n");
    expectRefused(
        "down_aux_flow_label_prefix", "-1",
        labelPrefix + "'down_aux_flow_label_prefix': illegal labelVal '-1' exceeds '65535'\n");
}

TEST(LabelAttributeTest, LeavesTheMemberUnchangedWhenItRefuses) {
    FlowDesc before(7);
    EXPECT_EQ(validate("label", "0", before).scratch.label, 7U);
}

const std::string dscpPrefix = "Vesk_validateDscpString: '";

TEST(DscpAttributeTest, StoresSixBitValuesAndMinusOne) {
    EXPECT_EQ(expectAccepted("down_out_dscp_v4", "0").down.dscpV4, 0);
    EXPECT_EQ(expectAccepted("down_out_dscp_v6", "63").down.dscpV6, 63);
    EXPECT_EQ(expectAccepted("up_out_dscp_v4", "0x2e").up.dscpV4, 46);
    FlowDesc marked;
    marked.up.dscpV6 = 5;
    EXPECT_EQ(validate("up_out_dscp_v6", "-1", marked).scratch.up.dscpV6, -1);
}

TEST(DscpAttributeTest, IgnoresAValueOutOfRange) {
    for (const char* value : {"64", "-2", "256", "4294967295", "9223372036854775807",
                              "-9223372036854775808", "-99999999999999999999"}) {
        FlowDesc marked;
        marked.down.dscpV4 = 5;
        const ParsedAttributes outcome = validate("down_out_dscp_v4", value, marked);
        EXPECT_TRUE(outcome.accepted) << value;
        EXPECT_EQ(outcome.printed,
                  "warn " + dscpPrefix + " Ignore invalid DSCP value: " + value + "'\n");
        EXPECT_EQ(outcome.scratch.down.dscpV4, 5) << value;
    }
}

TEST(DscpAttributeTest, RefusesAValueThatIsNotANumber) {
    expectRefused("up_out_dscp_v4", "EF", "error " + dscpPrefix + " Bad dscp value: EF\n");
    expectRefused("up_out_dscp_v6", "9223372036854775808",
                  "error " + dscpPrefix + " Bad dscp value: 9223372036854775808\n");
}

const std::string keyPrefix = "error Vesk_validateHmacKeyString: bad key, ";

TEST(KeyAttributeTest, DecodesPairsOfDigits) {
    const FlowDesc flow = expectAccepted("down_in_key", "00a1FfE5");
    EXPECT_EQ(flow.down.inHmac.keyLen, 4U);
    EXPECT_THAT(std::vector(flow.down.inHmac.key.begin(), flow.down.inHmac.key.begin() + 5),
                testing::ElementsAre(0x00, 0xa1, 0xff, 0xe5, 0x00));
}

TEST(KeyAttributeTest, StoresEachKeyInItsMember) {
    EXPECT_TRUE(expectAccepted("down_out_key", "01").down.outHmac.hasKey());
    EXPECT_TRUE(expectAccepted("up_in_key", "01").up.inHmac.hasKey());
    EXPECT_TRUE(expectAccepted("up_out_key", "01").up.outHmac.hasKey());
}

TEST(KeyAttributeTest, AcceptsUpTo256Digits) {
    const FlowDesc flow = expectAccepted("up_in_key", std::string(256, 'a'));
    EXPECT_EQ(flow.up.inHmac.keyLen, 128U);
    EXPECT_THAT(flow.up.inHmac.key, testing::Each(0xaa));
}

TEST(KeyAttributeTest, ReportsTheFirstFault) {
    expectRefused("up_in_key", "", keyPrefix + "empty\n");
    expectRefused("up_in_key", "abc", keyPrefix + "odd length\n");
    expectRefused("up_in_key", "xyz", keyPrefix + "odd length\n");
    expectRefused("up_in_key", std::string(257, 'a'), keyPrefix + "odd length\n");
    expectRefused("up_in_key", std::string(258, 'a'), keyPrefix + "too long\n");
    expectRefused("up_in_key", std::string(258, 'x'), keyPrefix + "too long\n");
    for (const char* value : {"0g", "0x12", "G0", "-1", "0:", "/0", "0@", "`0"}) {
        expectRefused("up_in_key", value, keyPrefix + "illegal character\n");
    }
}

TEST(KeyAttributeTest, KeepsTheOldBytesAfterAShorterKey) {
    const FlowDesc before = expectAccepted("up_in_key", "01020304");
    const FlowDesc after = validate("up_in_key", "ff", before).scratch;
    EXPECT_EQ(after.up.inHmac.keyLen, 1U);
    EXPECT_EQ(after.up.inHmac.key[0], 0xff);
    EXPECT_EQ(after.up.inHmac.key[1], 2);
}

TEST(AlgorithmAttributeTest, StoresNameAndDigest) {
    const FlowDesc flow = expectAccepted("up_in_algo", "sha256");
    EXPECT_EQ(flow.up.inHmac.algoName, "sha256");
    EXPECT_EQ(flow.up.inHmac.digest, &EVP_sha256);
    EXPECT_EQ(flow.up.outHmac.algoName, "sha1");
    const FlowDesc back = validate("up_in_algo", "sha1", flow).scratch;
    EXPECT_EQ(back.up.inHmac.digest, &EVP_sha1);
    EXPECT_EQ(expectAccepted("down_in_algo", "sha256").down.inHmac.algoName, "sha256");
    EXPECT_EQ(expectAccepted("down_out_algo", "sha256").down.outHmac.algoName, "sha256");
    EXPECT_EQ(expectAccepted("up_out_algo", "sha256").up.outHmac.algoName, "sha256");
}

TEST(AlgorithmAttributeTest, RefusesAnyOtherSpelling) {
    for (const std::string value : {"SHA1", "sha", "sha1 ", "sha-256", "md5", ""}) {
        expectRefused("down_in_algo", value,
                      "error Vesk_validateHmacAlgoString: unknown algo '" + value + "'\n");
    }
}

TEST(MultiplexAttributeTest, AcceptsTrueAndFalseOnly) {
    EXPECT_TRUE(expectAccepted("is_multiplex", "true").isMultiplex);
    FlowDesc multiplexed;
    multiplexed.isMultiplex = true;
    EXPECT_FALSE(validate("is_multiplex", "false", multiplexed).scratch.isMultiplex);
    for (const std::string value : {"True", "1", "yes", "", "false "}) {
        expectRefused(
            "is_multiplex", value,
            "error Vesk_validateIsMultiplexString: ' Bad isMultiplex value: " + value + "\n");
    }
}

TEST(AddressAttributeTest, StoresAResolvedAddress) {
    const FlowDesc flow = expectAccepted("up_addrinfo", "127.0.0.1|0x1194");
    EXPECT_EQ(flow.up.addrInfo.host(), "127.0.0.1");
    EXPECT_EQ(flow.up.addrInfo.port(), 4500);
    EXPECT_TRUE(flow.up.addrInfo.resolved());
}

TEST(AddressAttributeTest, StoresEachAddressInItsMember) {
    EXPECT_TRUE(expectAccepted("down_addrinfo", "::1|1").down.addrInfo.resolved());
    EXPECT_TRUE(expectAccepted("up_src_addrinfo", "::1|1").up.srcAddrInfo.resolved());
    EXPECT_TRUE(expectAccepted("up_aux_flow_addrinfo", "::1|1").upAuxFlowAddrInfo.resolved());
}

TEST(AddressAttributeTest, LeavesHalfAnAddressUnresolved) {
    const IPAddrInfo hostOnly = expectAccepted("up_addrinfo", "10.0.0.1|").up.addrInfo;
    EXPECT_EQ(hostOnly.host(), "10.0.0.1");
    EXPECT_EQ(hostOnly.port(), 0);
    EXPECT_FALSE(hostOnly.resolved());
    const IPAddrInfo portOnly = expectAccepted("up_addrinfo", "|9000").up.addrInfo;
    EXPECT_EQ(portOnly.host(), "");
    EXPECT_EQ(portOnly.port(), 9000);
    EXPECT_FALSE(portOnly.resolved());
}

TEST(AddressAttributeTest, ReadsAnAddressWithoutSeparatorAsEmpty) {
    const IPAddrInfo nothing = expectAccepted("up_addrinfo", "10.0.0.1").up.addrInfo;
    EXPECT_EQ(nothing.host(), "");
    EXPECT_EQ(nothing.port(), 0);
    EXPECT_EQ(expectAccepted("up_addrinfo", "").up.addrInfo.host(), "");
}

TEST(AddressAttributeTest, RefusesABadPort) {
    expectRefused("up_addrinfo", "10.0.0.1|45x",
                  "error Vesk_validateAddrInfoString: up_addrinfo: unresolvable address "
                  "'10.0.0.1|45x' Bad port value\n");
    expectRefused("down_addrinfo", "1.2.3.4|5|6",
                  "error Vesk_validateAddrInfoString: down_addrinfo: unresolvable address "
                  "'1.2.3.4|5|6' Bad port value\n");
}

TEST(AddressAttributeTest, DoesNotCheckTheRangeOfThePort) {
    EXPECT_EQ(expectAccepted("up_addrinfo", "127.0.0.1|70000").up.addrInfo.port(), 4464);
    // Passed to the resolver as 32 bits.
    EXPECT_EQ(expectAccepted("up_addrinfo", "127.0.0.1|4294971796").up.addrInfo.port(), 4500);
}

TEST(AddressAttributeTest, PropagatesAResolverFailure) {
    EXPECT_THROW(validate("up_addrinfo", "fe80::1::2|53"), std::runtime_error);
}

}  // namespace
}  // namespace vesk
