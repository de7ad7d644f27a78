#include "net/socket_options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>

#include "support/descriptors.h"
#include "support/printed.h"

namespace vesk {
namespace {

using testing::MatchesRegex;

const std::string timestampPattern = "\\[[-0-9T:.]+\\]";

class SocketOptionsTest : public DescriptorCountingTest {
 protected:
    void SetUp() override {
        DescriptorCountingTest::SetUp();
        ipv4.reset(socket(AF_INET, SOCK_DGRAM, 0));
        ipv6.reset(socket(AF_INET6, SOCK_DGRAM, 0));
    }
    void TearDown() override {
        ipv4.reset();
        ipv6.reset();
        DescriptorCountingTest::TearDown();
    }

    UniqueFd ipv4;
    UniqueFd ipv6;
};

TEST_F(SocketOptionsTest, BufferOfTwiceTheRequestedSizeIsNotLogged) {
    for (const int name : {SO_RCVBUF, SO_SNDBUF}) {
        EXPECT_EQ(printedBy([&] { EXPECT_EQ(Vesk_setSocketBuf(ipv4.get(), name, 8192), 0); }), "");
        EXPECT_EQ(socketOption(ipv4.get(), SOL_SOCKET, name), 16384);
    }
}

TEST_F(SocketOptionsTest, BufferOfAnotherSizeIsLogged) {
    // The kernel enforces a minimum size.
    const std::string receive = printedBy([this] { Vesk_setSocketBuf(ipv4.get(), SO_RCVBUF, 1); });
    const int granted = socketOption(ipv4.get(), SOL_SOCKET, SO_RCVBUF);
    ASSERT_NE(granted, 2);
    EXPECT_EQ(receive, "warn SO_RCVBUF sized to " + std::to_string(granted) + " wanted 1\n");
    const std::string send = printedBy([this] { Vesk_setSocketBuf(ipv4.get(), SO_SNDBUF, 1); });
    EXPECT_EQ(send, "warn SO_SNDBUF sized to " +
                        std::to_string(socketOption(ipv4.get(), SOL_SOCKET, SO_SNDBUF)) +
                        " wanted 1\n");
}

TEST_F(SocketOptionsTest, OptionOtherThanABufferSizeIsRefused) {
    const int before = socketOption(ipv4.get(), SOL_SOCKET, SO_BROADCAST);
    EXPECT_EQ(printedBy([this] { EXPECT_EQ(Vesk_setSocketBuf(ipv4.get(), 9, 1), -1); }),
              "error Vesk_setSocketBuf: bad SO_xxxBUF value 9\n");
    EXPECT_EQ(socketOption(ipv4.get(), SOL_SOCKET, SO_BROADCAST), before);
    EXPECT_EQ(printedBy([this] { EXPECT_EQ(Vesk_setSocketBuf(ipv4.get(), SO_BROADCAST, 1), -1); }),
              "error Vesk_setSocketBuf: bad SO_xxxBUF value 6\n");
}

TEST_F(SocketOptionsTest, BufferOptionIsCheckedBeforeTheSocket) {
    EXPECT_EQ(printedBy([] { EXPECT_EQ(Vesk_setSocketBuf(-1, 0, 1), -1); }),
              "error Vesk_setSocketBuf: bad SO_xxxBUF value 0\n");
}

TEST_F(SocketOptionsTest, BufferThatCannotBeSetIsReportedAtEveryLogLevel) {
    const AtLogLevel level("error");
    EXPECT_EQ(printedBy([] { EXPECT_EQ(Vesk_setSocketBuf(-1, SO_RCVBUF, 1), -EBADF); }),
              "set SO_RCVBUF failed with error 9\n");
    EXPECT_EQ(printedBy([] { EXPECT_EQ(Vesk_setSocketBuf(-1, SO_SNDBUF, 1), -EBADF); }),
              "set SO_SNDBUF failed with error 9\n");
}

TEST_F(SocketOptionsTest, RequestForTheDestinationAddressReturnsMinusEinvalOnSuccess) {
    EXPECT_EQ(printedBy([this] { EXPECT_EQ(Vesk_requestLocalDestAddr(ipv4.get(), AF_INET), -22); }),
              "");
    EXPECT_EQ(socketOption(ipv4.get(), IPPROTO_IP, IP_PKTINFO), 1);
    EXPECT_EQ(
        printedBy([this] { EXPECT_EQ(Vesk_requestLocalDestAddr(ipv6.get(), AF_INET6), -22); }), "");
    EXPECT_EQ(socketOption(ipv6.get(), IPPROTO_IPV6, IPV6_RECVPKTINFO), 1);
}

TEST_F(SocketOptionsTest, FailedRequestForTheDestinationAddressIsLogged) {
    EXPECT_THAT(
        printedBy([] { EXPECT_EQ(Vesk_requestLocalDestAddr(-1, AF_INET), -EBADF); }),
        MatchesRegex("warn  " + timestampPattern +
                     " Vesk_requestLocalDestAddr: IP_PKTINFO failed on socket -1, errno=9\n\n"));
    EXPECT_THAT(printedBy([] { EXPECT_EQ(Vesk_requestLocalDestAddr(-1, AF_INET6), -EBADF); }),
                MatchesRegex("warn  " + timestampPattern +
                             " Vesk_requestLocalDestAddr: IPV6_RECVPKTINFO failed on socket -1, "
                             "errno=9\n\n"));
}

TEST_F(SocketOptionsTest, RequestForTheDestinationAddressOfAnUnknownFamilyIsLogged) {
    EXPECT_THAT(
        printedBy([this] { EXPECT_EQ(Vesk_requestLocalDestAddr(ipv4.get(), AF_UNIX), -97); }),
        MatchesRegex("warn  " + timestampPattern +
                     " Vesk_requestLocalDestAddr: unknown socket family 1\n\n"));
    EXPECT_EQ(socketOption(ipv4.get(), IPPROTO_IP, IP_PKTINFO), 0);
    printedBy([this] { EXPECT_EQ(Vesk_requestLocalDestAddr(ipv4.get(), 0), -97); });
}

TEST_F(SocketOptionsTest, PortIsShared) {
    EXPECT_EQ(printedBy([this] { EXPECT_EQ(setReusePort(ipv4.get()), 0); }), "");
    EXPECT_EQ(socketOption(ipv4.get(), SOL_SOCKET, SO_REUSEPORT), 1);
}

TEST_F(SocketOptionsTest, PortThatCannotBeSharedIsReported) {
    EXPECT_EQ(printedBy([] { EXPECT_EQ(setReusePort(-1), -EBADF); }),
              "error Failed to set reuse port option on socket: Bad file descriptor\n");
}

}  // namespace
}  // namespace vesk
