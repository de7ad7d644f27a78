#include "datapath/wire/framing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

#include "support/framed.h"
#include "support/printed.h"

namespace vesk {
namespace {

using Buffer = std::array<std::uint8_t, maxDatagramSize>;

Buffer bufferWith(const Bytes& datagram, std::uint8_t rest = 0) {
    Buffer buffer;
    buffer.fill(rest);
    std::ranges::copy(datagram, buffer.begin());
    return buffer;
}

std::optional<ParsedDatagram> parse(const FramingDescriptor& framing, const Bytes& datagram) {
    const Buffer buffer = bufferWith(datagram);
    return parseDatagram(framing, buffer, datagram.size());
}

TEST(ParseUdpv2Test, ReadsTheLabelInNetworkOrder) {
    const auto parsed = parse(framingV2, framedV2(0x01020304, toBytes("x")));
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(parsed->label, 0x01020304U);
    EXPECT_EQ(parsed->headerLength, 20U);
    EXPECT_EQ(parse(framingV2, framedV2(0xffffffff, {}))->label, 0xffffffffU);
}

TEST(ParseUdpv2Test, AcceptsAnEmptyPayloadAndNothingShorter) {
    EXPECT_TRUE(parse(framingV2, Bytes(20)));
    EXPECT_FALSE(parse(framingV2, Bytes(19)));
    EXPECT_FALSE(parse(framingV2, Bytes(1)));
    EXPECT_FALSE(parse(framingV2, Bytes()));
}

TEST(ParseUdpv2Test, AcceptsTheLargestDatagram) {
    EXPECT_TRUE(parse(framingV2, Bytes(2048, 1)));
}

const char* const remark = "trace Dropping UDPv1 packet!\n";

TEST(ParseUdpv2Test, LogsATraceLineForTwelveZerosAndAccepts) {
    const AtLogLevel level("trace");
    Bytes datagram = framedV2(5, Bytes(20));
    EXPECT_EQ(printedBy([&] { EXPECT_TRUE(parse(framingV2, datagram)); }), remark);
    datagram.back() = 1;
    EXPECT_EQ(printedBy([&] { EXPECT_TRUE(parse(framingV2, datagram)); }), remark);
}

TEST(ParseUdpv2Test, LogsNothingUnlessAllTwelveAreZero) {
    const AtLogLevel level("trace");
    for (std::size_t offset = 20; offset < 32; ++offset) {
        Bytes datagram = framedV2(5, Bytes(20));
        datagram[offset] = 1;
        EXPECT_EQ(printedBy([&] { EXPECT_TRUE(parse(framingV2, datagram)); }), "") << offset;
    }
}

TEST(ParseUdpv2Test, LogsTwelveZerosAtTraceLevelOnly) {
    const AtLogLevel level("debug");
    EXPECT_EQ(printedBy([] { EXPECT_TRUE(parse(framingV2, framedV2(5, Bytes(20)))); }), "");
}

TEST(ParseUdpv2Test, ReadsTheBufferAfterAShortDatagram) {
    const AtLogLevel level("trace");
    const Bytes datagram = framedV2(5, {});
    const Buffer zeros = bufferWith(datagram, 0);
    EXPECT_EQ(printedBy([&] { EXPECT_TRUE(parseDatagram(framingV2, zeros, 20)); }), remark);
    const Buffer others = bufferWith(datagram, 7);
    EXPECT_EQ(printedBy([&] { EXPECT_TRUE(parseDatagram(framingV2, others, 20)); }), "");
}

TEST(ParseUdpv2Test, LogsNothingForARejectedDatagram) {
    const AtLogLevel level("trace");
    EXPECT_EQ(printedBy([] { EXPECT_FALSE(parse(framingV2, Bytes(19))); }), "");
}

/// A datagram of 50 bytes whose header length field is `headerLength`.
Bytes claiming(std::uint16_t headerLength, std::size_t length = 50) {
    Bytes datagram(length);
    datagram[32] = static_cast<std::uint8_t>(headerLength >> 8);
    datagram[33] = static_cast<std::uint8_t>(headerLength);
    return datagram;
}

TEST(ParseUdpv1Test, ReadsLabelAndHeaderLength) {
    const auto parsed =
        parse(framingV1, framedV1(0x01020304, toBytes("payload"), {}, toBytes("more")));
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(parsed->label, 0x01020304U);
    EXPECT_EQ(parsed->headerLength, 42U);
}

TEST(ParseUdpv1Test, RequiresAHeaderOfAtLeast38Bytes) {
    EXPECT_FALSE(parse(framingV1, claiming(37)));
    EXPECT_FALSE(parse(framingV1, claiming(0)));
    EXPECT_TRUE(parse(framingV1, claiming(38)));
}

TEST(ParseUdpv1Test, RequiresAtLeastOneByteOfPayload) {
    EXPECT_TRUE(parse(framingV1, claiming(49)));
    EXPECT_FALSE(parse(framingV1, claiming(50)));
    EXPECT_FALSE(parse(framingV1, claiming(51)));
    EXPECT_FALSE(parse(framingV1, claiming(0xffff)));
    EXPECT_FALSE(parse(framingV1, claiming(38, 38)));
    EXPECT_TRUE(parse(framingV1, claiming(38, 39)));
}

TEST(ParseUdpv1Test, ReadsTheHeaderLengthInNetworkOrder) {
    const auto parsed = parse(framingV1, claiming(0x0126, 2048));
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(parsed->headerLength, 0x0126U);
}

TEST(ParseUdpv1Test, RejectsADatagramThatIsTooShort) {
    EXPECT_FALSE(parse(framingV1, claiming(38, 37)));
    EXPECT_FALSE(parse(framingV1, Bytes()));
}

TEST(ParseUdpv1Test, LogsNothing) {
    const AtLogLevel level("trace");
    EXPECT_EQ(printedBy([] {
                  EXPECT_TRUE(parse(framingV1, framedV1(5, Bytes(1))));
                  EXPECT_FALSE(parse(framingV1, claiming(37)));
              }),
              "");
}

class RewriteLabelTest : public testing::TestWithParam<const FramingDescriptor*> {};

TEST_P(RewriteLabelTest, ChangesOnlyTheFourBytesOfTheLabel) {
    const FramingDescriptor& framing = *GetParam();
    Buffer buffer;
    buffer.fill(0xee);
    Buffer expected = buffer;
    const Bytes label{0x01, 0x02, 0x03, 0xff};
    std::ranges::copy(label, expected.begin() + framing.labelOffset);
    rewriteLabel(framing, buffer, 0x010203ff);
    EXPECT_EQ(buffer, expected);
}

TEST_P(RewriteLabelTest, IsReadByTheParser) {
    Buffer buffer = bufferWith(GetParam()->version == 1 ? framedV1(5, Bytes(1)) : framedV2(5, {}));
    for (const std::uint32_t label : {0U, 1U, 0x80000000U, 0xffffffffU}) {
        rewriteLabel(*GetParam(), buffer, label);
        EXPECT_EQ(parseDatagram(*GetParam(), buffer, 39)->label, label);
    }
}

INSTANTIATE_TEST_SUITE_P(BothVersions, RewriteLabelTest, testing::Values(&framingV1, &framingV2));

}  // namespace
}  // namespace vesk
