#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "datapath/control_data.h"
#include "datapath/outgoing_message.h"
#include "support/udp_socket.h"

namespace vesk {
namespace {

/// The control data that an outgoing message passes to the kernel, with its padding, which has no
/// meaning, set to zero.
Bytes controlOf(const OutgoingMessage& message) {
    const msghdr& header = *message.header();
    const auto* const first = static_cast<const std::uint8_t*>(header.msg_control);
    Bytes bytes(first, first + header.msg_controllen);
    for (std::size_t at = 0; at + sizeof(cmsghdr) <= bytes.size();) {
        std::size_t length = 0;
        std::memcpy(&length, bytes.data() + at, sizeof(length));
        const std::size_t end = at + length;
        at += CMSG_ALIGN(length);
        for (std::size_t i = end; i < std::min(at, bytes.size()); ++i) {
            bytes[i] = 0;
        }
    }
    return bytes;
}

Bytes trafficClass(int level, int type, int value) {
    Bytes data(sizeof(value));
    std::memcpy(data.data(), &value, sizeof(value));
    return control(level, type, data);
}

class OutgoingMessageTest : public testing::Test {
 protected:
    Bytes classFor(const char* host, std::int32_t dscpV4, std::int32_t dscpV6) {
        message.setDestination(IPAddrInfo(host, 4500).socketAddress());
        message.addTrafficClass(dscpV4, dscpV6);
        return controlOf(message);
    }

    OutgoingMessage message;
};

TEST_F(OutgoingMessageTest, CarriesDatagramAndDestination) {
    Bytes datagram = toBytes("datagram");
    const SocketAddress destination = IPAddrInfo("::1", 4500).socketAddress();
    message.setDatagram(datagram);
    message.setDestination(destination);
    const msghdr& header = *message.header();
    ASSERT_EQ(header.msg_iovlen, 1U);
    EXPECT_EQ(header.msg_iov->iov_base, datagram.data());
    EXPECT_EQ(header.msg_iov->iov_len, datagram.size());
    EXPECT_EQ(SocketAddress(static_cast<sockaddr*>(header.msg_name), header.msg_namelen),
              destination);
}

TEST_F(OutgoingMessageTest, CarriesNoControlDataByDefault) {
    message.setDestination(IPAddrInfo("::1", 4500).socketAddress());
    message.addTrafficClass(noDscp, noDscp);
    message.addSource(LocalAddress(), Ipv4Source::kernel);
    EXPECT_EQ(message.header()->msg_control, nullptr);
    EXPECT_EQ(message.header()->msg_controllen, 0U);
}

TEST_F(OutgoingMessageTest, SetsTheDscpOfIpv4) {
    EXPECT_EQ(classFor("127.0.0.1", 46, 10), trafficClass(IPPROTO_IP, IP_TOS, 184));
    EXPECT_EQ(classFor("127.0.0.1", 0, 10), trafficClass(IPPROTO_IP, IP_TOS, 0));
    EXPECT_EQ(classFor("127.0.0.1", 63, 10), trafficClass(IPPROTO_IP, IP_TOS, 252));
    EXPECT_EQ(classFor("127.0.0.1", 46, 10).size(), 24U);
}

TEST_F(OutgoingMessageTest, SetsTheDscpOfIpv6) {
    EXPECT_EQ(classFor("::1", 10, 46), trafficClass(IPPROTO_IPV6, IPV6_TCLASS, 184));
}

TEST_F(OutgoingMessageTest, SetsTheDscpOfMappedIpv4LikeThatOfIpv4) {
    EXPECT_EQ(classFor("::ffff:127.0.0.1", 46, 10), trafficClass(IPPROTO_IP, IP_TOS, 184));
    // Neither of these is a mapped address.
    EXPECT_EQ(classFor("::127.0.0.1", 46, 10), trafficClass(IPPROTO_IPV6, IPV6_TCLASS, 40));
    EXPECT_EQ(classFor("1::ffff:127.0.0.1", 46, 10), trafficClass(IPPROTO_IPV6, IPV6_TCLASS, 40));
}

TEST_F(OutgoingMessageTest, SetsNoDscpForAFamilyWithoutOne) {
    EXPECT_THAT(classFor("127.0.0.1", noDscp, 10), testing::IsEmpty());
    EXPECT_THAT(classFor("::1", 10, noDscp), testing::IsEmpty());
    EXPECT_THAT(classFor("::ffff:127.0.0.1", noDscp, 10), testing::IsEmpty());
}

TEST_F(OutgoingMessageTest, WritesAnIpv4SourceIntoTheAddressField) {
    message.setDestination(IPAddrInfo("127.0.0.1", 4500).socketAddress());
    message.addSource({IPAddrInfo("192.0.2.1", 9).socketAddress(), true}, Ipv4Source::kernel);
    EXPECT_EQ(controlOf(message),
              control(IPPROTO_IP, IP_PKTINFO, fromHex("00000000 00000000 c0000201")));
    EXPECT_EQ(controlOf(message).size(), 32U);
}

TEST(ArrivalSourceTest, WritesAValidIpv4SourceIntoBothFields) {
    OutgoingMessage message;
    message.setDestination(IPAddrInfo("127.0.0.1", 4500).socketAddress());
    message.addTrafficClass(46, noDscp);
    message.addSource(ipv4Destination(), Ipv4Source::arrival);
    EXPECT_EQ(controlOf(message),
              trafficClass(IPPROTO_IP, IP_TOS, 184) +
                  control(IPPROTO_IP, IP_PKTINFO, fromHex("00000000 c0000201 c0000201")));
}

TEST(ArrivalSourceTest, WritesAnInvalidSourceIntoTheAddressFieldOnly) {
    OutgoingMessage message;
    message.setDestination(IPAddrInfo("127.0.0.1", 4500).socketAddress());
    message.addSource(ipv4BroadcastDestination(), Ipv4Source::arrival);
    EXPECT_EQ(controlOf(message),
              control(IPPROTO_IP, IP_PKTINFO, fromHex("00000000 00000000 c00002ff")));
}

TEST(ArrivalSourceTest, WritesAnIpv6SourceWithItsInterface) {
    OutgoingMessage message;
    message.setDestination(IPAddrInfo("::1", 4500).socketAddress());
    message.addSource(ipv6Destination(), Ipv4Source::arrival);
    EXPECT_EQ(controlOf(message), control(IPPROTO_IPV6, IPV6_PKTINFO, ipv6Information));
}

TEST(ArrivalSourceTest, IsUsedByTheKernel) {
    for (const auto& [mode, source] : {std::pair(Ipv4Source::kernel, "127.0.0.1"),
                                       std::pair(Ipv4Source::arrival, "127.0.0.9")}) {
        UdpSocket from(AF_INET);
        UdpSocket to(AF_INET);
        Bytes datagram = toBytes("from");
        OutgoingMessage message;
        message.setDatagram(datagram);
        message.setDestination(to.address());
        message.addSource({IPAddrInfo("127.0.0.9", 1).socketAddress(), true}, mode);
        EXPECT_EQ(sendmsg(from.fd(), message.header(), 0), 4);
        EXPECT_EQ(to.receive(), datagram);
        EXPECT_EQ(to.sender(), IPAddrInfo(source, from.port()).socketAddress());
    }
}

TEST_F(OutgoingMessageTest, WritesAnIpv6SourceWithItsInterface) {
    message.setDestination(IPAddrInfo("::1", 4500).socketAddress());
    message.addSource(ipv6Destination(), Ipv4Source::kernel);
    EXPECT_EQ(controlOf(message), control(IPPROTO_IPV6, IPV6_PKTINFO, ipv6Information));
    EXPECT_EQ(controlOf(message).size(), 40U);
}

TEST_F(OutgoingMessageTest, WritesNoSourceOfAnotherFamily) {
    sockaddr_storage other{};
    other.ss_family = AF_UNIX;
    message.setDestination(IPAddrInfo("::1", 4500).socketAddress());
    message.addSource({{reinterpret_cast<const sockaddr*>(&other), 16}, true}, Ipv4Source::kernel);
    EXPECT_EQ(message.header()->msg_control, nullptr);
}

TEST_F(OutgoingMessageTest, WritesTheSourceAfterTheDscp) {
    EXPECT_EQ(classFor("127.0.0.1", 46, noDscp), trafficClass(IPPROTO_IP, IP_TOS, 184));
    message.addSource(ipv4Destination(), Ipv4Source::kernel);
    EXPECT_EQ(controlOf(message),
              trafficClass(IPPROTO_IP, IP_TOS, 184) +
                  control(IPPROTO_IP, IP_PKTINFO, fromHex("00000000 00000000 c0000201")));
    EXPECT_EQ(controlOf(message).size(), 56U);
    classFor("::1", noDscp, 46);
    message.addSource(ipv6Destination(), Ipv4Source::kernel);
    EXPECT_EQ(controlOf(message).size(), 64U);
}

TEST_F(OutgoingMessageTest, NewDestinationClearsTheControlData) {
    classFor("127.0.0.1", 46, noDscp);
    message.addSource(ipv4Destination(), Ipv4Source::kernel);
    message.setDestination(IPAddrInfo("::1", 4500).socketAddress());
    EXPECT_THAT(controlOf(message), testing::IsEmpty());
    EXPECT_EQ(message.header()->msg_control, nullptr);
}

TEST_F(OutgoingMessageTest, IsAcceptedByTheKernelWithDscpAndSource) {
    for (const int family : {AF_INET, AF_INET6}) {
        UdpSocket from(family);
        UdpSocket to(family);
        Bytes datagram = toBytes("marked");
        message.setDatagram(datagram);
        message.setDestination(to.address());
        message.addTrafficClass(46, 46);
        message.addSource({withPort(from.address(), 0), true}, Ipv4Source::kernel);
        EXPECT_EQ(sendmsg(from.fd(), message.header(), 0), 6);
        EXPECT_EQ(to.receive(), datagram);
        EXPECT_EQ(to.sender(), from.address());
    }
}

TEST(RouteComparisonTest, ComparesDestinationAndControlData) {
    const auto addressed = [](OutgoingMessage& message, const char* host, std::int32_t dscp,
                              const LocalAddress& source) -> OutgoingMessage& {
        message.setDestination(IPAddrInfo(host, 4500).socketAddress());
        message.addTrafficClass(dscp, dscp);
        message.addSource(source, Ipv4Source::kernel);
        return message;
    };
    OutgoingMessage first;
    addressed(first, "127.0.0.1", 46, ipv4Destination());
    // A message that was used before for a longer route.
    OutgoingMessage other;
    addressed(other, "::1", 10, ipv6Destination());
    EXPECT_FALSE(first.hasRouteOf(other));
    EXPECT_TRUE(first.hasRouteOf(addressed(other, "127.0.0.1", 46, ipv4Destination())));
    EXPECT_FALSE(first.hasRouteOf(addressed(other, "127.0.0.2", 46, ipv4Destination())));
    EXPECT_FALSE(first.hasRouteOf(addressed(other, "127.0.0.1", 45, ipv4Destination())));
    EXPECT_FALSE(first.hasRouteOf(addressed(other, "127.0.0.1", 46, {})));
    EXPECT_FALSE(first.hasRouteOf(addressed(other, "127.0.0.1", noDscp, ipv4Destination())));
    EXPECT_FALSE(first.hasRouteOf(addressed(other, "127.0.0.1", 46, ipv4BroadcastDestination())));
}

TEST_F(OutgoingMessageTest, AddsTheSegmentSizeToACopyOfItsHeader) {
    message.setDestination(IPAddrInfo("::1", 4500).socketAddress());
    message.addTrafficClass(46, 46);
    message.addSource(ipv6Destination(), Ipv4Source::kernel);
    const Bytes before = controlOf(message);
    const msghdr segmented = message.segmentedHeader(1200);
    EXPECT_EQ(segmented.msg_name, message.header()->msg_name);
    const auto* const control = static_cast<const std::uint8_t*>(segmented.msg_control);
    EXPECT_EQ(Bytes(control, control + before.size()), before);
    EXPECT_EQ(Bytes(control + before.size(), control + segmented.msg_controllen),
              vesk::control(IPPROTO_UDP, UDP_SEGMENT, fromHex("b004")));
    EXPECT_EQ(controlOf(message), before);
}

}  // namespace
}  // namespace vesk
