#include "datapath/datagram_io.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "base/thread_control.h"
#include "net/endpoint_sockets.h"
#include "net/socket_options.h"
#include "support/framed.h"
#include "support/printed.h"
#include "support/thread_state.h"
#include "support/udp_socket.h"

namespace vesk {
namespace {

/// One control message with its padding, as the kernel writes it.
Bytes control(int level, int type, const Bytes& data) {
    cmsghdr header{};
    header.cmsg_len = CMSG_LEN(data.size());
    header.cmsg_level = level;
    header.cmsg_type = type;
    Bytes bytes(CMSG_SPACE(data.size()));
    std::memcpy(bytes.data(), &header, sizeof(header));
    std::ranges::copy(data, bytes.begin() + sizeof(header));
    return bytes;
}

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/// Interface 3, first address 9.9.9.9, destination 192.0.2.1.
const Bytes ipv4Information = fromHex("03000000 09090909 c0000201");
/// Destination 2001:db8::1, interface 3.
const Bytes ipv6Information = fromHex("20010db8 00000000 00000000 00000001 03000000");

SocketAddress ipv4Destination() {
    return withPort(IPAddrInfo("192.0.2.1", 1).socketAddress(), 0);
}

SocketAddress ipv6Destination() {
    SocketAddress address = withPort(IPAddrInfo("2001:db8::1", 1).socketAddress(), 0);
    reinterpret_cast<sockaddr_in6*>(address.get())->sin6_scope_id = 3;
    return address;
}

TEST(LocalDestinationTest, IsFoundForEitherFamily) {
    EXPECT_EQ(findLocalDestination(AF_INET, control(IPPROTO_IP, IP_PKTINFO, ipv4Information)),
              ipv4Destination());
    EXPECT_EQ(findLocalDestination(AF_INET6, control(IPPROTO_IPV6, IPV6_PKTINFO, ipv6Information)),
              ipv6Destination());
}

TEST(LocalDestinationTest, IsFoundBehindOtherMessages) {
    // Data lengths that need padding, so that the walk has to round up.
    for (const std::size_t length : {0U, 1U, 4U, 8U, 9U}) {
        const Bytes other = control(SOL_SOCKET, SO_TIMESTAMP, Bytes(length, 1));
        EXPECT_EQ(findLocalDestination(
                      AF_INET, other + other + control(IPPROTO_IP, IP_PKTINFO, ipv4Information)),
                  ipv4Destination())
            << length;
    }
}

TEST(LocalDestinationTest, IsTakenFromTheFamilysOwnMessageOnly) {
    const Bytes both = control(IPPROTO_IP, IP_PKTINFO, ipv4Information) +
                       control(IPPROTO_IPV6, IPV6_PKTINFO, ipv6Information);
    EXPECT_EQ(findLocalDestination(AF_INET6, both), ipv6Destination());
    EXPECT_EQ(findLocalDestination(AF_INET, both), ipv4Destination());
    EXPECT_EQ(
        findLocalDestination(AF_INET6, control(IPPROTO_IP, IP_PKTINFO, ipv4Information)).length,
        0U);
    EXPECT_EQ(findLocalDestination(AF_UNIX, both).length, 0U);
    EXPECT_EQ(findLocalDestination(0, both).length, 0U);
    // The right type at the wrong level, and the other way round.
    EXPECT_EQ(
        findLocalDestination(AF_INET, control(IPPROTO_IPV6, IP_PKTINFO, ipv4Information)).length,
        0U);
    EXPECT_EQ(findLocalDestination(AF_INET, control(IPPROTO_IP, IP_TOS, ipv4Information)).length,
              0U);
}

TEST(LocalDestinationTest, IsEmptyWithoutControlData) {
    EXPECT_EQ(findLocalDestination(AF_INET, {}).length, 0U);
    EXPECT_EQ(findLocalDestination(AF_INET6, {}).length, 0U);
}

TEST(LocalDestinationTest, IsEmptyWhereTheMessageIsCut) {
    const Bytes whole = control(IPPROTO_IP, IP_PKTINFO, ipv4Information);
    for (std::size_t length = 0; length < CMSG_LEN(ipv4Information.size()); ++length) {
        EXPECT_EQ(findLocalDestination(AF_INET, std::span(whole).first(length)).length, 0U)
            << length;
    }
}

TEST(LocalDestinationTest, IsEmptyWhereTheInformationIsTooShort) {
    EXPECT_EQ(findLocalDestination(AF_INET, control(IPPROTO_IP, IP_PKTINFO, Bytes(11, 1))).length,
              0U);
    EXPECT_EQ(
        findLocalDestination(AF_INET6, control(IPPROTO_IPV6, IPV6_PKTINFO, Bytes(19, 1))).length,
        0U);
}

TEST(LocalDestinationTest, StopsAtAHeaderThatLies) {
    const Bytes good = control(IPPROTO_IP, IP_PKTINFO, ipv4Information);
    for (const std::size_t claimed : {std::size_t{0}, std::size_t{15}, std::size_t{1000},
                                      ~std::size_t{0}, ~std::size_t{0} - 7}) {
        Bytes liar = control(SOL_SOCKET, SO_TIMESTAMP, Bytes(8));
        std::memcpy(liar.data(), &claimed, sizeof(claimed));
        EXPECT_EQ(findLocalDestination(AF_INET, liar + good).length, 0U) << claimed;
    }
}

TEST(LocalDestinationTest, TakesALastMessageWithoutItsPadding) {
    Bytes bytes = control(IPPROTO_IP, IP_PKTINFO, ipv4Information);
    bytes.resize(CMSG_LEN(ipv4Information.size()));
    EXPECT_EQ(findLocalDestination(AF_INET, bytes), ipv4Destination());
}

/// What an outgoing message hands to the kernel besides the datagram. The padding, which means
/// nothing, is made zero.
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

TEST_F(OutgoingMessageTest, CarriesNoControlDataOfItsOwn) {
    message.setDestination(IPAddrInfo("::1", 4500).socketAddress());
    message.addTrafficClass(noDscp, noDscp);
    message.addSource(SocketAddress());
    EXPECT_EQ(message.header()->msg_control, nullptr);
    EXPECT_EQ(message.header()->msg_controllen, 0U);
}

TEST_F(OutgoingMessageTest, MarksIpv4) {
    EXPECT_EQ(classFor("127.0.0.1", 46, 10), trafficClass(IPPROTO_IP, IP_TOS, 184));
    EXPECT_EQ(classFor("127.0.0.1", 0, 10), trafficClass(IPPROTO_IP, IP_TOS, 0));
    EXPECT_EQ(classFor("127.0.0.1", 63, 10), trafficClass(IPPROTO_IP, IP_TOS, 252));
    EXPECT_EQ(classFor("127.0.0.1", 46, 10).size(), 24U);
}

TEST_F(OutgoingMessageTest, MarksIpv6) {
    EXPECT_EQ(classFor("::1", 10, 46), trafficClass(IPPROTO_IPV6, IPV6_TCLASS, 184));
}

TEST_F(OutgoingMessageTest, MarksMappedIpv4LikeIpv4) {
    EXPECT_EQ(classFor("::ffff:127.0.0.1", 46, 10), trafficClass(IPPROTO_IP, IP_TOS, 184));
    // Neither of these is of the mapped form.
    EXPECT_EQ(classFor("::127.0.0.1", 46, 10), trafficClass(IPPROTO_IPV6, IPV6_TCLASS, 40));
    EXPECT_EQ(classFor("1::ffff:127.0.0.1", 46, 10), trafficClass(IPPROTO_IPV6, IPV6_TCLASS, 40));
}

TEST_F(OutgoingMessageTest, LeavesAFamilyWithoutAMarkUnmarked) {
    EXPECT_THAT(classFor("127.0.0.1", noDscp, 10), testing::IsEmpty());
    EXPECT_THAT(classFor("::1", 10, noDscp), testing::IsEmpty());
    EXPECT_THAT(classFor("::ffff:127.0.0.1", noDscp, 10), testing::IsEmpty());
}

TEST_F(OutgoingMessageTest, NamesAnIpv4SourceInTheAddressField) {
    message.setDestination(IPAddrInfo("127.0.0.1", 4500).socketAddress());
    message.addSource(IPAddrInfo("192.0.2.1", 9).socketAddress());
    EXPECT_EQ(controlOf(message),
              control(IPPROTO_IP, IP_PKTINFO, fromHex("00000000 00000000 c0000201")));
    EXPECT_EQ(controlOf(message).size(), 32U);
}

TEST_F(OutgoingMessageTest, NamesAnIpv6SourceWithItsInterface) {
    message.setDestination(IPAddrInfo("::1", 4500).socketAddress());
    message.addSource(ipv6Destination());
    EXPECT_EQ(controlOf(message), control(IPPROTO_IPV6, IPV6_PKTINFO, ipv6Information));
    EXPECT_EQ(controlOf(message).size(), 40U);
}

TEST_F(OutgoingMessageTest, NamesNoSourceOfAnotherFamily) {
    sockaddr_storage other{};
    other.ss_family = AF_UNIX;
    message.setDestination(IPAddrInfo("::1", 4500).socketAddress());
    message.addSource({reinterpret_cast<const sockaddr*>(&other), 16});
    EXPECT_EQ(message.header()->msg_control, nullptr);
}

TEST_F(OutgoingMessageTest, PutsTheSourceBehindTheMark) {
    EXPECT_EQ(classFor("127.0.0.1", 46, noDscp), trafficClass(IPPROTO_IP, IP_TOS, 184));
    message.addSource(ipv4Destination());
    EXPECT_EQ(controlOf(message),
              trafficClass(IPPROTO_IP, IP_TOS, 184) +
                  control(IPPROTO_IP, IP_PKTINFO, fromHex("00000000 00000000 c0000201")));
    EXPECT_EQ(controlOf(message).size(), 56U);
    classFor("::1", noDscp, 46);
    message.addSource(ipv6Destination());
    EXPECT_EQ(controlOf(message).size(), 64U);
}

TEST_F(OutgoingMessageTest, StartsAfreshWithANewDestination) {
    classFor("127.0.0.1", 46, noDscp);
    message.addSource(ipv4Destination());
    message.setDestination(IPAddrInfo("::1", 4500).socketAddress());
    EXPECT_THAT(controlOf(message), testing::IsEmpty());
    EXPECT_EQ(message.header()->msg_control, nullptr);
}

TEST_F(OutgoingMessageTest, IsTakenByTheKernelWithEverythingOnIt) {
    for (const int family : {AF_INET, AF_INET6}) {
        UdpSocket from(family);
        UdpSocket to(family);
        Bytes datagram = toBytes("marked");
        message.setDatagram(datagram);
        message.setDestination(to.address());
        message.addTrafficClass(46, 46);
        message.addSource(withPort(from.address(), 0));
        EXPECT_EQ(sendmsg(from.fd(), message.header(), 0), 6);
        EXPECT_EQ(to.receive(), datagram);
        EXPECT_EQ(to.sender(), from.address());
    }
}

/// An endpoint around a socket that belongs to the test.
EndpointPtr endpointAround(const UdpSocket& socket, int family) {
    Vesk_requestLocalDestAddr(socket.fd(), family);
    auto endpoint = std::make_unique<VeskEndpointDescriptor>(0, socket.fd(), socket.fd(),
                                                             FlowDesc(), [](int, int) {});
    endpoint->family = family;
    return endpoint;
}

class ReceiveTest : public testing::TestWithParam<int> {
 protected:
    void SetUp() override { setNonBlocking(socket.fd()); }

    UdpSocket socket{GetParam()};
    UdpSocket peer{GetParam()};
    EndpointPtr endpoint = endpointAround(socket, GetParam());
    IncomingMessage message;
};

TEST_P(ReceiveTest, TellsSenderDestinationAndLength) {
    peer.send(toBytes("datagram"), socket.address());
    const ReceiveResult result = receiveNow(message, *endpoint);
    EXPECT_EQ(result.received, 8);
    EXPECT_EQ(Bytes(endpoint->receiveBuffer.begin(), endpoint->receiveBuffer.begin() + 8),
              toBytes("datagram"));
    EXPECT_EQ(message.sender(), peer.address());
    EXPECT_FALSE(message.truncated());
    const SocketAddress local = message.localDestination(GetParam());
    const IPAddrInfo printed(local.get(), local.length);
    EXPECT_EQ(printed.host(), GetParam() == AF_INET ? "127.0.0.1" : "::1");
    EXPECT_EQ(printed.port(), 0);
}

TEST_P(ReceiveTest, TellsNoDestinationOfTheOtherFamily) {
    peer.send(toBytes("datagram"), socket.address());
    receiveNow(message, *endpoint);
    EXPECT_EQ(message.localDestination(GetParam() == AF_INET ? AF_INET6 : AF_INET).length, 0U);
}

TEST_P(ReceiveTest, TellsNoDestinationThatWasNotAskedFor) {
    UdpSocket plain(GetParam());
    VeskEndpointDescriptor unasked(0, plain.fd(), plain.fd(), FlowDesc(), [](int, int) {});
    peer.send(toBytes("first"), socket.address());
    receiveNow(message, *endpoint);
    peer.send(toBytes("second"), plain.address());
    receiveNow(message, unasked);
    EXPECT_EQ(message.localDestination(GetParam()).length, 0U);
}

TEST_P(ReceiveTest, CutsADatagramThatIsTooLong) {
    peer.send(Bytes(2049, 1), socket.address());
    EXPECT_EQ(receiveNow(message, *endpoint).received, 2048);
    EXPECT_TRUE(message.truncated());
    peer.send(Bytes(2048, 1), socket.address());
    EXPECT_EQ(receiveNow(message, *endpoint).received, 2048);
    EXPECT_FALSE(message.truncated());
}

TEST_P(ReceiveTest, ReportsADrainedSocket) {
    const ReceiveResult result = receiveNow(message, *endpoint);
    EXPECT_EQ(result.received, -1);
    EXPECT_EQ(result.error, EAGAIN);
}

TEST_P(ReceiveTest, ReportsAnEmptyDatagramLikeADrainedSocket) {
    peer.send({}, socket.address());
    errno = ENOTSOCK;
    const ReceiveResult result = receiveNow(message, *endpoint);
    EXPECT_EQ(result.received, 0);
    EXPECT_EQ(result.error, EAGAIN);
    EXPECT_FALSE(message.truncated());
}

TEST_P(ReceiveTest, WaitsUntilItIsCancelled) {
    UdpSocket blocking(GetParam());
    const EndpointPtr waiting = endpointAround(blocking, GetParam());
    ThreadMark mark;
    CancellableThread thread;
    ASSERT_EQ(thread.start([&] {
        IncomingMessage incoming;
        EXPECT_EQ(receiveCancellably(incoming, *waiting).received, 5);
        mark.set();
        receiveCancellably(incoming, *waiting);
        ADD_FAILURE() << "came back";
    }),
              0);
    peer.send(toBytes("first"), blocking.address());
    ASSERT_TRUE(mark.eventuallyBlocks());
    EXPECT_EQ(thread.stop(), 0);
}

TEST_P(ReceiveTest, ReportsWhatCannotBeReceived) {
    VeskEndpointDescriptor closed(0, -1, -1, FlowDesc(), [](int, int) {});
    EXPECT_EQ(receiveNow(message, closed).received, -1);
    EXPECT_EQ(receiveNow(message, closed).error, EBADF);
}

INSTANTIATE_TEST_SUITE_P(BothFamilies, ReceiveTest, testing::Values(AF_INET, AF_INET6),
                         [](const auto& row) { return row.param == AF_INET ? "IPv4" : "IPv6"; });

}  // namespace
}  // namespace vesk
