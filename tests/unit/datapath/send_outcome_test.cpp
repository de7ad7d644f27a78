#include "datapath/send_outcome.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdint>

#include "base/unique_fd.h"
#include "support/udp_socket.h"

namespace vesk {
namespace {

class SendOutcomeTest : public testing::Test {
 protected:
    SendOutcomeTest() { message.setDatagram(datagram); }

    SendResult send(int socket, int flags = MSG_DONTWAIT) const {
        return sendMessage(*message.header(), socket, flags, datagram.size());
    }

    std::array<std::uint8_t, 3> datagram{1, 2, 3};
    OutgoingMessage message;
};

TEST_F(SendOutcomeTest, IsSentWhenAllBytesWereSent) {
    UdpSocket receiver;
    UdpSocket sender;
    message.setDestination(receiver.address());
    EXPECT_EQ(send(sender.fd()).outcome, SendOutcome::sent);
}

TEST_F(SendOutcomeTest, IsFailedWhenTooFewBytesWereSent) {
    UdpSocket receiver;
    UdpSocket sender;
    message.setDestination(receiver.address());
    EXPECT_EQ(sendMessage(*message.header(), sender.fd(), 0, datagram.size() + 1).outcome,
              SendOutcome::failed);
}

TEST_F(SendOutcomeTest, IsNoRoomWhenTheBufferIsFull) {
    std::array<int, 2> pair{-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair.data()), 0);
    const UniqueFd sender(pair[0]);
    const UniqueFd receiver(pair[1]);
    SendResult result{SendOutcome::sent, 0};
    for (int i = 0; i < 100000 && result.outcome == SendOutcome::sent; ++i) {
        result = send(sender.get());
    }
    EXPECT_EQ(result.outcome, SendOutcome::noRoom);
    EXPECT_EQ(result.error, EAGAIN);
}

TEST_F(SendOutcomeTest, IsRefusedAfterAnEarlierDatagramWasRefused) {
    UdpSocket sender;
    SocketAddress closedPort;
    {
        const UdpSocket closed;
        closedPort = closed.address();
    }
    ASSERT_EQ(connect(sender.fd(), closedPort.get(), closedPort.length), 0);
    EXPECT_EQ(send(sender.fd()).outcome, SendOutcome::sent);
    EXPECT_EQ(send(sender.fd()).outcome, SendOutcome::refused);
}

TEST_F(SendOutcomeTest, IsFailedOnAnyOtherError) {
    const SendResult result = send(-1);
    EXPECT_EQ(result.outcome, SendOutcome::failed);
    EXPECT_EQ(result.error, EBADF);
}

TEST_F(SendOutcomeTest, RefusalIsNotCounted) {
    SharedCounter sent;
    SharedCounter dropped;
    countSend(SendOutcome::refused, sent, dropped);
    EXPECT_EQ(sent.value() + dropped.value(), 0U);
    countSend(SendOutcome::sent, sent, dropped);
    EXPECT_EQ(sent.value(), 1U);
    countSend(SendOutcome::noRoom, sent, dropped);
    countSend(SendOutcome::failed, sent, dropped);
    EXPECT_EQ(sent.value(), 1U);
    EXPECT_EQ(dropped.value(), 2U);
}

}  // namespace
}  // namespace vesk
