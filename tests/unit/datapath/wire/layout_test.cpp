// Compares the layout tables, and the functions that parse and sign by them, with the example
// datagrams of docs/wire-format.md.
#include "datapath/wire/layout.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <ostream>
#include <string>

#include "datapath/documented_datagrams.h"
#include "datapath/wire/authentication.h"
#include "datapath/wire/lateral_header.h"
#include "flow/hmac_info.h"

#include "support/bytes.h"

namespace vesk {
namespace {

struct DocumentBuffer : std::array<std::uint8_t, maxDatagramSize> {
    explicit DocumentBuffer(const Bytes& datagram) : std::array<std::uint8_t, maxDatagramSize>{} {
        std::ranges::copy(datagram, begin());
    }
    Bytes front(std::size_t length) const {
        return {begin(), begin() + static_cast<std::ptrdiff_t>(length)};
    }
};

HmacInfo recordOf(const std::string& hexKey, const HmacAlgorithm& algorithm) {
    HmacInfo record;
    record.setKey(fromHex(hexKey));
    record.setAlgorithm(algorithm);
    return record;
}

std::uint32_t labelOf(const std::string& text) {
    return static_cast<std::uint32_t>(std::stoul(text, nullptr, 16));
}

class WireLayoutTest : public testing::Test {
 protected:
    const WireFormatPage page;
    const std::string key = page.wordAfter("Key (16 bytes) `");
    const std::uint32_t label = labelOf(page.wordAfter("`, label "));
};

TEST_F(WireLayoutTest, PlacesTheFieldsOfUdpv1AsDocumented) {
    const DocumentedDatagram example = page.datagram("UDPv1, SHA-1");
    EXPECT_EQ(framingV1.version, 1U);
    EXPECT_EQ(framingV1.hmacOffset, example.startOf("HMAC"));
    EXPECT_EQ(framingV1.hmacOffset + framingV1.hmacLength, example.startOf("H ="));
    EXPECT_EQ(framingV1.headerLengthOffset, example.startOf("H ="));
    EXPECT_EQ(framingV1.headerLengthOffset + framingV1.headerLengthSize, example.startOf("label"));
    EXPECT_EQ(framingV1.labelOffset, example.startOf("label"));
    EXPECT_EQ(framingV1.labelOffset + framingV1.labelSize, example.startOf("payload"));
    EXPECT_EQ(framingV1.minHeaderSize, example.startOf("payload"));
}

TEST_F(WireLayoutTest, PlacesTheFieldsOfUdpv2AsDocumented) {
    const DocumentedDatagram example = page.datagram("UDPv2, SHA-256");
    EXPECT_EQ(framingV2.version, 2U);
    EXPECT_EQ(framingV2.hmacOffset, example.startOf("HMAC"));
    EXPECT_EQ(framingV2.hmacOffset + framingV2.hmacLength, example.startOf("label"));
    EXPECT_EQ(framingV2.headerLengthSize, 0U);
    EXPECT_EQ(framingV2.labelOffset, example.startOf("label"));
    EXPECT_EQ(framingV2.labelOffset + framingV2.labelSize, example.startOf("payload"));
    EXPECT_EQ(framingV2.minHeaderSize, example.startOf("payload"));
}

TEST_F(WireLayoutTest, PlacesTheFieldsOfTheLateralHeaderAsDocumented) {
    const DocumentedDatagram example = page.datagram("The first UDPv2 example handed");
    const std::uint32_t hmac = example.startOf("lateral HMAC");
    EXPECT_EQ(lateralLayout.typeOffset, example.startOf("type"));
    EXPECT_EQ(lateralLayout.returnInfoOffset, example.startOf("N ="));
    EXPECT_EQ(lateralLayout.lengthOffset, example.startOf("N ="));
    EXPECT_EQ(lateralLayout.lengthOffset + lateralLayout.lengthSize, example.startOf("AF_INET"));
    EXPECT_EQ(lateralLayout.addressOffset, example.startOf("AF_INET"));
    EXPECT_EQ(lateralLayout.addressOffset + lateralLayout.minAddressLength, hmac);
    EXPECT_EQ(hmac + lateralLayout.hmacLength, example.startOf("the framed datagram"));
    EXPECT_EQ(lateralLayout.minLateralSize, example.startOf("the framed datagram"));
    const std::string longest = page.wordAfter("N: 32 for an IPv4 address, ");
    EXPECT_EQ(std::to_string(lateralLayout.maxAddressLength + lateralLayout.hmacLength), longest);
}

TEST_F(WireLayoutTest, HasOneTableForEachFramingVersion) {
    EXPECT_EQ(&framingOfVersion(1), &framingV1);
    EXPECT_EQ(&framingOfVersion(2), &framingV2);
}

struct Example {
    const char* description;
    const FramingDescriptor& framing;
    const HmacAlgorithm& algorithm;
};

std::ostream& operator<<(std::ostream& out, const Example& example) {
    return out << example.description;
}

class DocumentedExampleTest : public WireLayoutTest, public testing::WithParamInterface<Example> {
 protected:
    const FramingDescriptor& framing = GetParam().framing;
    const DocumentedDatagram example = page.datagram(GetParam().description);
    const std::size_t length = example.bytes().size();
    DocumentBuffer buffer{example.bytes()};
    HmacInfo record = recordOf(key, GetParam().algorithm);
};

TEST_P(DocumentedExampleTest, IsParsedAndPassesItsCheck) {
    const auto parsed = parseDatagram(framing, buffer, length);
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(parsed->label, label);
    EXPECT_EQ(parsed->headerLength, example.startOf("payload"));
    EXPECT_TRUE(checkDatagram(framing, buffer, parsed->headerLength, length, record));
    buffer.at(length - 1) ^= 1U;
    EXPECT_FALSE(checkDatagram(framing, buffer, parsed->headerLength, length, record));
}

TEST_P(DocumentedExampleTest, IsReproducedBySigning) {
    std::fill_n(buffer.begin(), framing.hmacLength, std::uint8_t{0xee});
    ASSERT_TRUE(signDatagram(framing, buffer, example.startOf("payload"), length, record));
    EXPECT_EQ(buffer.front(length), example.bytes());
}

INSTANTIATE_TEST_SUITE_P(WireFormatPage, DocumentedExampleTest,
                         testing::Values(Example{"UDPv2, SHA-256", framingV2, hmacSha256},
                                         Example{"UDPv2, SHA-1", framingV2, hmacSha1},
                                         Example{"UDPv1, SHA-256", framingV1, hmacSha256},
                                         Example{"UDPv1, SHA-1", framingV1, hmacSha1}));

TEST_F(WireLayoutTest, ForwardsTheFirstExampleAsDocumented) {
    const DocumentedDatagram received = page.datagram("UDPv2, SHA-256");
    const DocumentedDatagram sent = page.datagram("The first UDPv2 example forwarded");
    const std::size_t length = sent.bytes().size();
    ASSERT_EQ(received.bytes().size(), length);
    DocumentBuffer buffer(received.bytes());
    rewriteLabel(framingV2, buffer, labelOf(page.wordAfter("`up_label` is ")));
    HmacInfo record = recordOf(page.wordAfter("`up_out_key` is `"), hmacSha256);
    ASSERT_TRUE(signDatagram(framingV2, buffer, sent.startOf("payload"), length, record));
    EXPECT_EQ(buffer.front(length), sent.bytes());
}

TEST_F(WireLayoutTest, SendsTheFirstExampleOverTheLateralStreamAsDocumented) {
    if constexpr (std::endian::native != std::endian::little) {
        GTEST_SKIP() << "the page shows the header of a little-endian host";
    }
    const Bytes datagram = page.datagram("UDPv2, SHA-256").bytes();
    const DocumentedDatagram handedOver = page.datagram("The first UDPv2 example handed");
    DocumentBuffer buffer(datagram);
    HmacInfo record = recordOf(page.wordAfter("whose lateral key is `"), hmacSha256);
    const SocketAddress peer = IPAddrInfo("192.0.2.7", 40000).socketAddress();
    const auto wrapped = addLateralHeader(buffer, datagram.size(), peer, record);
    ASSERT_EQ(wrapped, handedOver.bytes().size());
    EXPECT_EQ(buffer.front(*wrapped), handedOver.bytes());

    const auto header = parseLateralHeader(buffer, *wrapped);
    ASSERT_TRUE(header.has_value());
    EXPECT_EQ(header->type, lateralForward);
    EXPECT_EQ(header->size(), handedOver.startOf("the framed datagram"));
    const ReturnPath path = keepReturnPath(buffer, *header);
    DocumentBuffer reply(datagram);
    ASSERT_EQ(addReturnHeader(reply, datagram.size(), path), wrapped);
    Bytes expected = handedOver.bytes();
    expected.front() = fromHex(page.wordAfter("comes back with byte 0 set to ")).at(0);
    EXPECT_EQ(expected.front(), lateralReturn);
    EXPECT_EQ(reply.front(*wrapped), expected);
}

TEST(ReturnPathTest, IsEmptyByDefault) {
    EXPECT_TRUE(ReturnPath().empty());
    EXPECT_TRUE(ReturnPath().bytes().empty());
    EXPECT_TRUE(ReturnPath(Bytes()).empty());
}

TEST(ReturnPathTest, KeepsUpTo45Bytes) {
    Bytes bytes(ReturnPath::capacity, 7);
    EXPECT_EQ(bytes.size(), 45U);
    bytes.back() = 9;
    const ReturnPath path(bytes);
    EXPECT_FALSE(path.empty());
    EXPECT_EQ(toBytes(path.bytes()), bytes);
}

TEST(ReturnPathTest, IsComparedByItsBytes) {
    EXPECT_EQ(ReturnPath(Bytes{1, 2}), ReturnPath(Bytes{1, 2}));
    EXPECT_FALSE(ReturnPath(Bytes{1, 2}) == ReturnPath(Bytes{1, 3}));
    EXPECT_FALSE(ReturnPath(Bytes{1, 2}) == ReturnPath(Bytes{1}));
    EXPECT_FALSE(ReturnPath(Bytes{0}) == ReturnPath());
    EXPECT_EQ(ReturnPath(), ReturnPath());
}

}  // namespace
}  // namespace vesk
