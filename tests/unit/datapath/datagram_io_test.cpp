#include "datapath/datagram_io.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "base/nonblocking.h"
#include "base/thread_control.h"
#include "datapath/control_data.h"
#include "net/socket_options.h"
#include "support/thread_state.h"
#include "support/udp_socket.h"

namespace vesk {
namespace {

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

/// An endpoint that uses a socket of the test and does not close it.
EndpointPtr endpointAround(const UdpSocket& socket, int family) {
    Vesk_requestLocalDestAddr(socket.fd(), family);
    const SocketAddress& bound = socket.address();
    return std::make_unique<VeskEndpointDescriptor>(
        0, socket.fd(), socket.fd(), FlowDesc(), [](int, int) {},
        IPAddrInfo(bound.get(), bound.length));
}

class ReceiveTest : public testing::TestWithParam<int> {
 protected:
    void SetUp() override { setNonBlocking(socket.fd()); }

    UdpSocket socket{GetParam()};
    UdpSocket peer{GetParam()};
    EndpointPtr endpoint = endpointAround(socket, GetParam());
    IncomingMessage message;
};

TEST_P(ReceiveTest, ReportsSenderDestinationAndLength) {
    peer.send(toBytes("datagram"), socket.address());
    const ReceiveResult result = receiveNow(message, *endpoint);
    EXPECT_EQ(result.received, 8);
    EXPECT_EQ(Bytes(endpoint->receiveBuffer.begin(), endpoint->receiveBuffer.begin() + 8),
              toBytes("datagram"));
    EXPECT_EQ(message.sender(), peer.address());
    EXPECT_FALSE(message.truncated());
    const LocalAddress local = message.localDestination(GetParam());
    const IPAddrInfo printed(local.address.get(), local.address.length);
    EXPECT_EQ(printed.host(), GetParam() == AF_INET ? "127.0.0.1" : "::1");
    EXPECT_EQ(printed.port(), 0);
    EXPECT_EQ(local.validIpv4Source, GetParam() == AF_INET);
}

TEST_P(ReceiveTest, ReportsNoDestinationOfTheOtherFamily) {
    peer.send(toBytes("datagram"), socket.address());
    receiveNow(message, *endpoint);
    EXPECT_EQ(message.localDestination(GetParam() == AF_INET ? AF_INET6 : AF_INET).address.length,
              0U);
}

TEST_P(ReceiveTest, ReportsNoDestinationWhenNoneWasRequested) {
    UdpSocket plain(GetParam());
    VeskEndpointDescriptor unasked(0, plain.fd(), plain.fd(), FlowDesc(), [](int, int) {});
    peer.send(toBytes("first"), socket.address());
    receiveNow(message, *endpoint);
    peer.send(toBytes("second"), plain.address());
    receiveNow(message, unasked);
    EXPECT_EQ(message.localDestination(GetParam()).address.length, 0U);
}

TEST_P(ReceiveTest, TruncatesADatagramThatIsTooLong) {
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

TEST_P(ReceiveTest, ReportsAnEmptyDatagramAsADrainedSocket) {
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
        EXPECT_EQ(awaitDatagram(incoming, *waiting, "test"), 5U);
        mark.set();
        awaitDatagram(incoming, *waiting, "test");
        ADD_FAILURE() << "the second receive call returned";
    }),
              0);
    peer.send(toBytes("first"), blocking.address());
    ASSERT_TRUE(mark.eventuallyBlocks());
    EXPECT_EQ(thread.stop(), 0);
}

TEST_P(ReceiveTest, ReportsAReceiveError) {
    VeskEndpointDescriptor closed(0, -1, -1, FlowDesc(), [](int, int) {});
    EXPECT_EQ(receiveNow(message, closed).received, -1);
    EXPECT_EQ(receiveNow(message, closed).error, EBADF);
}

INSTANTIATE_TEST_SUITE_P(BothFamilies, ReceiveTest, testing::Values(AF_INET, AF_INET6),
                         [](const auto& row) { return row.param == AF_INET ? "IPv4" : "IPv6"; });

}  // namespace
}  // namespace vesk
