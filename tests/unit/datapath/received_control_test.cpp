#include "datapath/received_control.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>

#include <cstring>
#include <span>

#include "datapath/control_data.h"

namespace vesk {
namespace {

LocalAddress findLocalDestination(int family, std::span<const std::uint8_t> control) {
    return readControl(family, control).localDestination;
}

TEST(LocalDestinationTest, IsFoundForEitherFamily) {
    EXPECT_EQ(findLocalDestination(AF_INET, control(IPPROTO_IP, IP_PKTINFO, ipv4Information)),
              ipv4Destination());
    EXPECT_EQ(findLocalDestination(AF_INET6, control(IPPROTO_IPV6, IPV6_PKTINFO, ipv6Information)),
              ipv6Destination());
}

TEST(LocalDestinationTest, IsNotAValidSourceWhenTheHostHasAnotherAddress) {
    EXPECT_EQ(
        findLocalDestination(AF_INET, control(IPPROTO_IP, IP_PKTINFO, ipv4BroadcastInformation)),
        ipv4BroadcastDestination());
}

TEST(LocalDestinationTest, IsFoundAfterOtherMessages) {
    // Data lengths that need padding, so the search has to round up.
    for (const std::size_t length : {0U, 1U, 4U, 8U, 9U}) {
        const Bytes other = control(SOL_SOCKET, SO_TIMESTAMP, Bytes(length, 1));
        EXPECT_EQ(findLocalDestination(
                      AF_INET, other + other + control(IPPROTO_IP, IP_PKTINFO, ipv4Information)),
                  ipv4Destination())
            << length;
    }
}

TEST(LocalDestinationTest, IsReadOnlyFromTheMessageOfItsFamily) {
    const Bytes both = control(IPPROTO_IP, IP_PKTINFO, ipv4Information) +
                       control(IPPROTO_IPV6, IPV6_PKTINFO, ipv6Information);
    EXPECT_EQ(findLocalDestination(AF_INET6, both), ipv6Destination());
    EXPECT_EQ(findLocalDestination(AF_INET, both), ipv4Destination());
    EXPECT_EQ(findLocalDestination(AF_INET6, control(IPPROTO_IP, IP_PKTINFO, ipv4Information))
                  .address.length,
              0U);
    EXPECT_EQ(findLocalDestination(AF_UNIX, both).address.length, 0U);
    EXPECT_EQ(findLocalDestination(0, both).address.length, 0U);
    // The right type at the wrong level, then the wrong type at the right level.
    EXPECT_EQ(findLocalDestination(AF_INET, control(IPPROTO_IPV6, IP_PKTINFO, ipv4Information))
                  .address.length,
              0U);
    EXPECT_EQ(
        findLocalDestination(AF_INET, control(IPPROTO_IP, IP_TOS, ipv4Information)).address.length,
        0U);
}

TEST(LocalDestinationTest, IsEmptyWithoutControlData) {
    EXPECT_EQ(findLocalDestination(AF_INET, {}).address.length, 0U);
    EXPECT_EQ(findLocalDestination(AF_INET6, {}).address.length, 0U);
}

TEST(LocalDestinationTest, IsEmptyWhenTheMessageIsTruncated) {
    const Bytes whole = control(IPPROTO_IP, IP_PKTINFO, ipv4Information);
    for (std::size_t length = 0; length < CMSG_LEN(ipv4Information.size()); ++length) {
        EXPECT_EQ(findLocalDestination(AF_INET, std::span(whole).first(length)).address.length, 0U)
            << length;
    }
}

TEST(LocalDestinationTest, IsEmptyWhenTheInformationIsTooShort) {
    EXPECT_EQ(
        findLocalDestination(AF_INET, control(IPPROTO_IP, IP_PKTINFO, Bytes(11, 1))).address.length,
        0U);
    EXPECT_EQ(findLocalDestination(AF_INET6, control(IPPROTO_IPV6, IPV6_PKTINFO, Bytes(19, 1)))
                  .address.length,
              0U);
}

TEST(LocalDestinationTest, StopsAtAHeaderWithAnInvalidLength) {
    const Bytes good = control(IPPROTO_IP, IP_PKTINFO, ipv4Information);
    for (const std::size_t claimed : {std::size_t{0}, std::size_t{15}, std::size_t{1000},
                                      ~std::size_t{0}, ~std::size_t{0} - 7}) {
        Bytes invalid = control(SOL_SOCKET, SO_TIMESTAMP, Bytes(8));
        std::memcpy(invalid.data(), &claimed, sizeof(claimed));
        EXPECT_EQ(findLocalDestination(AF_INET, invalid + good).address.length, 0U) << claimed;
    }
}

TEST(LocalDestinationTest, AcceptsALastMessageWithoutPadding) {
    Bytes bytes = control(IPPROTO_IP, IP_PKTINFO, ipv4Information);
    bytes.resize(CMSG_LEN(ipv4Information.size()));
    EXPECT_EQ(findLocalDestination(AF_INET, bytes), ipv4Destination());
}

TEST(SegmentSizeTest, IsFoundBesideTheDestination) {
    const Bytes segment = control(IPPROTO_UDP, UDP_GRO, fromHex("b0040000"));
    const Bytes destination = control(IPPROTO_IP, IP_PKTINFO, ipv4Information);
    for (const Bytes& both : {segment + destination, destination + segment}) {
        const ReceivedControl read = readControl(AF_INET, both);
        EXPECT_EQ(read.segmentSize, 1200U);
        EXPECT_EQ(read.localDestination, ipv4Destination());
    }
}

TEST(SegmentSizeTest, IsZeroForAMessageThatWasNotMerged) {
    EXPECT_EQ(readControl(AF_INET, control(IPPROTO_IP, IP_PKTINFO, ipv4Information)).segmentSize,
              0U);
    EXPECT_EQ(readControl(AF_INET, control(IPPROTO_UDP, UDP_GRO, Bytes(3, 1))).segmentSize, 0U);
    EXPECT_EQ(
        readControl(AF_INET, control(IPPROTO_UDP, UDP_SEGMENT, fromHex("b0040000"))).segmentSize,
        0U);
    EXPECT_EQ(readControl(AF_INET, control(IPPROTO_UDP, UDP_GRO, fromHex("ffffffff"))).segmentSize,
              0U);
}

}  // namespace
}  // namespace vesk
