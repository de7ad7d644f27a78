#include "net/endpoint_sockets.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>

#include "support/descriptors.h"
#include "support/printed.h"
#include "support/udp_socket.h"

namespace vesk {
namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class EndpointSocketsTest : public DescriptorCountingTest {
 protected:
    void TearDown() override {
        endpoint.reset();
        DescriptorCountingTest::TearDown();
    }

    /// Makes an endpoint and returns what is printed meanwhile.
    std::string make(const std::string& address, int port) {
        return printedBy([&] { endpoint = makeEndpointSocket(address, port); });
    }

    EndpointPtr endpoint;
};

TEST_F(EndpointSocketsTest, BindsOneSocketForBothDirections) {
    const int port = freePort();
    const std::string printed = make("127.0.0.1", port);
    ASSERT_NE(endpoint, nullptr);
    EXPECT_EQ(endpoint->label, 0U);
    EXPECT_EQ(endpoint->rdsockfd, endpoint->wrsockfd);
    EXPECT_EQ(endpoint->family, AF_INET);
    EXPECT_EQ(portOf(boundAddress(endpoint->rdsockfd)), port);
    EXPECT_EQ(endpoint->localAddress.host(), "127.0.0.1");
    EXPECT_EQ(endpoint->localAddress.port(), port);
    EXPECT_EQ(endpoint->localAddress.socketAddress(), boundAddress(endpoint->rdsockfd));
    const std::string portText = std::to_string(port);
    EXPECT_THAT(printed,
                AllOf(StartsWith("info Making socket with family 2 address 127.0.0.1 port " +
                                 portText + "\n"),
                      EndsWith("info Endpoint socket bound: 127.0.0.1|" + portText + " (" +
                               std::to_string(endpoint->rdsockfd) + ")\n")));
}

TEST_F(EndpointSocketsTest, UsesIpv6ForAnAddressWithAColon) {
    const int port = freePort(AF_INET6);
    const std::string printed = make("::1", port);
    ASSERT_NE(endpoint, nullptr);
    EXPECT_EQ(endpoint->family, AF_INET6);
    EXPECT_EQ(socketOption(endpoint->rdsockfd, SOL_SOCKET, SO_DOMAIN), AF_INET6);
    EXPECT_EQ(socketOption(endpoint->rdsockfd, IPPROTO_IPV6, IPV6_RECVPKTINFO), 1);
    EXPECT_THAT(printed,
                AllOf(StartsWith("info Making socket with family 10 address ::1 port "),
                      HasSubstr("info Endpoint socket bound: ::1|" + std::to_string(port) + " (")));
}

TEST_F(EndpointSocketsTest, SetsOnlyTheReceiveBuffer) {
    make("127.0.0.1", freePort());
    ASSERT_NE(endpoint, nullptr);
    const UniqueFd plain(socket(AF_INET, SOCK_DGRAM, 0));
    EXPECT_EQ(socketOption(endpoint->rdsockfd, SOL_SOCKET, SO_SNDBUF),
              socketOption(plain.get(), SOL_SOCKET, SO_SNDBUF));
    // The size that this kernel grants for the same request, which a host may limit.
    const int request = 524288;
    ASSERT_EQ(setsockopt(plain.get(), SOL_SOCKET, SO_RCVBUF, &request, sizeof(request)), 0);
    EXPECT_EQ(socketOption(endpoint->rdsockfd, SOL_SOCKET, SO_RCVBUF),
              socketOption(plain.get(), SOL_SOCKET, SO_RCVBUF));
}

TEST_F(EndpointSocketsTest, RequestsBothReceiveBufferSizes) {
    // The larger request comes first, so a host that grants neither logs both.
    const UniqueFd plain(socket(AF_INET, SOCK_DGRAM, 0));
    std::string expected;
    for (const int request : {1048576, 524288}) {
        ASSERT_EQ(setsockopt(plain.get(), SOL_SOCKET, SO_RCVBUF, &request, sizeof(request)), 0);
        const int granted = socketOption(plain.get(), SOL_SOCKET, SO_RCVBUF);
        if (granted != 2 * request) {
            expected += "warn SO_RCVBUF sized to " + std::to_string(granted) + " wanted " +
                        std::to_string(request) + "\n";
        }
    }
    const std::string port = std::to_string(freePort());
    const std::string printed = make("127.0.0.1", std::stoi(port));
    ASSERT_NE(endpoint, nullptr);
    EXPECT_EQ(printed, "info Making socket with family 2 address 127.0.0.1 port " + port + "\n" +
                           expected + "info Endpoint socket bound: 127.0.0.1|" + port + " (" +
                           std::to_string(endpoint->rdsockfd) + ")\n");
}

TEST_F(EndpointSocketsTest, LeavesTheSocketBlockingAndItsPortUnshared) {
    make("127.0.0.1", freePort());
    ASSERT_NE(endpoint, nullptr);
    EXPECT_EQ(fcntl(endpoint->rdsockfd, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(socketOption(endpoint->rdsockfd, SOL_SOCKET, SO_REUSEPORT), 0);
    EXPECT_EQ(socketOption(endpoint->rdsockfd, IPPROTO_IP, IP_PKTINFO), 1);
    EXPECT_EQ(socketOption(endpoint->rdsockfd, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
    EXPECT_EQ(socketOption(endpoint->rdsockfd, SOL_SOCKET, SO_PROTOCOL), IPPROTO_UDP);
}

TEST_F(EndpointSocketsTest, ClosesItsSocketInItsDestructor) {
    make("127.0.0.1", freePort());
    ASSERT_NE(endpoint, nullptr);
    const int fd = endpoint->rdsockfd;
    endpoint.reset();
    EXPECT_FALSE(isOpen(fd));
}

TEST_F(EndpointSocketsTest, ReportsAnAddressInUse) {
    const UdpSocket occupied;
    EXPECT_THAT(
        make("127.0.0.1", occupied.port()),
        EndsWith("error Failed bind syscall for endpoint socket: Address already in use\n"));
    EXPECT_EQ(endpoint, nullptr);
}

TEST_F(EndpointSocketsTest, ReportsAnAddressThatCannotBeBound) {
    // Without a port the address is not resolved, and an empty address cannot be bound.
    for (const char* address : {"no:address", "127.0.0.1"}) {
        const std::string family = std::string(address) == "127.0.0.1" ? "2" : "10";
        EXPECT_THAT(
            make(address, 0),
            AllOf(StartsWith("info Making socket with family " + family + " address " + address +
                             " port 0\n"),
                  EndsWith("error Failed bind syscall for endpoint socket: Invalid argument\n")));
        EXPECT_EQ(endpoint, nullptr);
    }
}

TEST_F(EndpointSocketsTest, PropagatesAResolverFailureAndClosesTheSocket) {
    EXPECT_THROW(make("fe80::1::2", 53), std::runtime_error);
    EXPECT_EQ(endpoint, nullptr);
}

TEST_F(EndpointSocketsTest, ReportsAShortageOfDescriptors) {
    const std::string printed = printedBy([this] {
        const DescriptorShortage shortage(0);
        endpoint = makeEndpointSocket("127.0.0.1", 1);
    });
    EXPECT_EQ(printed,
              "info Making socket with family 2 address 127.0.0.1 port 1\n"
              "error Failed socket syscall for endpoint: Too many open files\n");
    EXPECT_EQ(endpoint, nullptr);
}

TEST_F(EndpointSocketsTest, LogsWhichKindOfEndpointIsMade) {
    const std::string port = std::to_string(freePort());
    EXPECT_THAT(
        printedBy([&] { endpoint = makeDownstreamEndpoint("127.0.0.1", std::stoi(port)); }),
        StartsWith("info Making downstream endpoint with address 127.0.0.1 port " + port +
                   "\ninfo Making socket with family 2 address 127.0.0.1 port " + port + "\n"));
    EXPECT_NE(endpoint, nullptr);
    endpoint.reset();
    EXPECT_THAT(
        printedBy([&] { endpoint = makeLateralStreamEndpoint("127.0.0.1", std::stoi(port)); }),
        StartsWith("info Making lateral stream endpoint with address 127.0.0.1 port " + port +
                   "\ninfo Making socket with family 2 address 127.0.0.1 port " + port + "\n"));
    EXPECT_NE(endpoint, nullptr);
}

class SocketPairTest : public DescriptorCountingTest {};

TEST_F(SocketPairTest, IsOneSocketUnderTwoDescriptors) {
    SocketPair pair;
    EXPECT_EQ(printedBy([&pair] { EXPECT_EQ(makeEndpointSocketPair(AF_INET6, pair), 0); }), "");
    EXPECT_NE(pair.rdsockfd.get(), pair.wrsockfd.get());
    EXPECT_NE(fcntl(pair.rdsockfd.get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(pair.wrsockfd.get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(socketOption(pair.rdsockfd.get(), SOL_SOCKET, SO_DOMAIN), AF_INET6);
    const int on = 1;
    ASSERT_EQ(setsockopt(pair.rdsockfd.get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof(on)), 0);
    EXPECT_EQ(socketOption(pair.wrsockfd.get(), SOL_SOCKET, SO_BROADCAST), 1);
}

TEST_F(SocketPairTest, ReportsAnUnknownFamily) {
    SocketPair pair;
    EXPECT_EQ(printedBy([&pair] { EXPECT_EQ(makeEndpointSocketPair(0, pair), -EAFNOSUPPORT); }),
              "error socket: new endpoint socket. Error: Address family not supported by "
              "protocol\n");
    EXPECT_FALSE(pair.rdsockfd);
    EXPECT_FALSE(pair.wrsockfd);
}

TEST_F(SocketPairTest, ReportsThatTheSocketCannotBeDuplicated) {
    SocketPair pair;
    int result = 0;
    const std::string printed = printedBy([&] {
        const DescriptorShortage shortage(1);
        result = makeEndpointSocketPair(AF_INET, pair);
    });
    EXPECT_EQ(result, -EMFILE);
    EXPECT_THAT(printed, testing::MatchesRegex(
                             "error Failed to dup sockfd [0-9]+ Error: Too many open files\n"));
    EXPECT_FALSE(pair.rdsockfd);
}

TEST(CloseEndpointSocketsTest, ClosesDescriptorsThatAreNotMinusOne) {
    const int first = dup(0);
    const int second = dup(0);
    closeEndpointSockets(first, -1);
    EXPECT_FALSE(isOpen(first));
    EXPECT_TRUE(isOpen(second));
    closeEndpointSockets(-1, second);
    EXPECT_FALSE(isOpen(second));
    closeEndpointSockets(-1, -1);
}

TEST(CloseEndpointSocketsTest, ClosesBothDescriptors) {
    const int first = dup(0);
    const int second = dup(0);
    closeEndpointSockets(first, second);
    EXPECT_FALSE(isOpen(first));
    EXPECT_FALSE(isOpen(second));
}

}  // namespace
}  // namespace vesk
