#include "datapath/receive_batch.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>

#include <cerrno>

#include "base/nonblocking.h"
#include "base/thread_control.h"
#include "flow/ip_addr_info.h"
#include "net/socket_options.h"
#include "support/bytes.h"
#include "support/thread_state.h"
#include "support/udp_socket.h"

namespace vesk {
namespace {

Bytes datagramOf(const ReceivedMessage& message, std::size_t index = 0) {
    const auto bytes = message.datagram(index).first(message.datagramLength(index));
    return {bytes.begin(), bytes.end()};
}

class ReceiveBatchTest : public testing::TestWithParam<int> {
 protected:
    void SetUp() override {
        setNonBlocking(socket.fd());
        Vesk_requestLocalDestAddr(socket.fd(), GetParam());
    }

    /// Sends datagrams that the kernel passes on merged if the receiver asks for that.
    void sendMerged(const Bytes& bytes, int segmentSize) {
        ASSERT_EQ(
            setsockopt(peer.fd(), IPPROTO_UDP, UDP_SEGMENT, &segmentSize, sizeof(segmentSize)), 0);
        peer.send(bytes, socket.address());
    }
    ReceivedMessage message(std::size_t index) { return batch.message(index, GetParam()); }

    UdpSocket socket{GetParam()};
    UdpSocket peer{GetParam()};
    ReceiveBatch batch;
};

TEST_P(ReceiveBatchTest, ReportsSenderDestinationAndLength) {
    peer.send(toBytes("datagram"), socket.address());
    ASSERT_EQ(batch.receiveNow(socket.fd()), 1);
    const ReceivedMessage received = message(0);
    ASSERT_EQ(received.datagramCount(), 1U);
    EXPECT_EQ(datagramOf(received), toBytes("datagram"));
    EXPECT_EQ(received.sender(), peer.address());
    const LocalAddress& local = received.localDestination();
    const IPAddrInfo printed(local.address.get(), local.address.length);
    EXPECT_EQ(printed.host(), GetParam() == AF_INET ? "127.0.0.1" : "::1");
    EXPECT_EQ(printed.port(), 0);
    EXPECT_EQ(local.validIpv4Source, GetParam() == AF_INET);
}

TEST_P(ReceiveBatchTest, ReportsNoDestinationOfTheOtherFamily) {
    peer.send(toBytes("datagram"), socket.address());
    batch.receiveNow(socket.fd());
    EXPECT_EQ(batch.message(0, GetParam() == AF_INET ? AF_INET6 : AF_INET)
                  .localDestination()
                  .address.length,
              0U);
}

TEST_P(ReceiveBatchTest, ReportsNoDestinationWhenNoneWasRequested) {
    UdpSocket plain(GetParam());
    peer.send(toBytes("first"), socket.address());
    batch.receiveNow(socket.fd());
    batch.clear();
    peer.send(toBytes("second"), plain.address());
    ASSERT_EQ(batch.receiveNow(plain.fd()), 1);
    EXPECT_EQ(message(0).localDestination().address.length, 0U);
}

TEST_P(ReceiveBatchTest, ReceivesAllDatagramsInOrder) {
    UdpSocket other(GetParam());
    peer.send(toBytes("first"), socket.address());
    other.send(toBytes("second, longer"), socket.address());
    peer.send(toBytes("3"), socket.address());
    ASSERT_EQ(batch.receiveNow(socket.fd()), 3);
    EXPECT_EQ(datagramOf(message(0)), toBytes("first"));
    EXPECT_EQ(datagramOf(message(1)), toBytes("second, longer"));
    EXPECT_EQ(message(1).sender(), other.address());
    EXPECT_EQ(datagramOf(message(2)), toBytes("3"));
    EXPECT_EQ(message(2).sender(), peer.address());
}

TEST_P(ReceiveBatchTest, ReceivesAsManyAsItHasRoomFor) {
    for (std::size_t i = 0; i < ReceiveBatch::capacity + 3; ++i) {
        peer.send(Bytes(1, static_cast<std::uint8_t>(i)), socket.address());
    }
    EXPECT_EQ(batch.room(), ReceiveBatch::capacity);
    EXPECT_EQ(batch.receiveNow(socket.fd()), static_cast<int>(ReceiveBatch::capacity));
    EXPECT_EQ(batch.room(), 0U);
    EXPECT_EQ(datagramOf(message(63)), Bytes(1, 63));
    batch.clear();
    EXPECT_EQ(batch.room(), ReceiveBatch::capacity);
    EXPECT_EQ(batch.receiveNow(socket.fd()), 3);
    EXPECT_EQ(datagramOf(message(0)), Bytes(1, 64));
}

TEST_P(ReceiveBatchTest, KeepsMessagesOfEarlierCalls) {
    peer.send(toBytes("first"), socket.address());
    ASSERT_EQ(batch.receiveNow(socket.fd()), 1);
    const ReceivedMessage first = message(0);
    peer.send(toBytes("later"), socket.address());
    ASSERT_EQ(batch.receiveNow(socket.fd()), 1);
    EXPECT_EQ(datagramOf(message(0)), toBytes("later"));
    EXPECT_EQ(datagramOf(first), toBytes("first"));
    EXPECT_EQ(batch.room(), ReceiveBatch::capacity - 2);
}

TEST_P(ReceiveBatchTest, CutsADatagramThatIsTooLong) {
    peer.send(Bytes(2049, 1), socket.address());
    peer.send(Bytes(2048, 2), socket.address());
    ASSERT_EQ(batch.receiveNow(socket.fd()), 2);
    EXPECT_EQ(datagramOf(message(0)), Bytes(2048, 1));
    EXPECT_EQ(datagramOf(message(1)), Bytes(2048, 2));
}

TEST_P(ReceiveBatchTest, ReportsADrainedSocket) {
    EXPECT_EQ(batch.receiveNow(socket.fd()), -EAGAIN);
    EXPECT_EQ(batch.room(), ReceiveBatch::capacity);
}

TEST_P(ReceiveBatchTest, ReportsAnEmptyDatagramAsAMessageWithoutDatagrams) {
    peer.send({}, socket.address());
    peer.send(toBytes("next"), socket.address());
    ASSERT_EQ(batch.receiveNow(socket.fd()), 2);
    EXPECT_EQ(message(0).datagramCount(), 0U);
    EXPECT_EQ(datagramOf(message(1)), toBytes("next"));
}

TEST_P(ReceiveBatchTest, SplitsMergedDatagrams) {
    requestMergedDatagrams(socket.fd());
    sendMerged(join({Bytes(400, 1), Bytes(400, 2), Bytes(9, 3)}), 400);
    peer.send(toBytes("alone"), socket.address());
    ASSERT_EQ(batch.receiveNow(socket.fd()), 2);
    const ReceivedMessage merged = message(0);
    ASSERT_EQ(merged.datagramCount(), 3U);
    EXPECT_EQ(datagramOf(merged, 0), Bytes(400, 1));
    EXPECT_EQ(datagramOf(merged, 1), Bytes(400, 2));
    EXPECT_EQ(datagramOf(merged, 2), Bytes(9, 3));
    EXPECT_EQ(merged.sender(), peer.address());
    EXPECT_EQ(merged.localDestination().address.family(), GetParam());
    EXPECT_EQ(datagramOf(message(1)), toBytes("alone"));
}

TEST_P(ReceiveBatchTest, ReceivesTheLongestMergedMessage) {
    requestMergedDatagrams(socket.fd());
    sendMerged(Bytes(64000, 7), 1000);
    ASSERT_EQ(batch.receiveNow(socket.fd()), 1);
    EXPECT_EQ(message(0).datagramCount(), 64U);
    EXPECT_EQ(datagramOf(message(0), 63), Bytes(1000, 7));
}

TEST_P(ReceiveBatchTest, ReceivesDatagramsAloneWithoutTheRequest) {
    sendMerged(join({Bytes(400, 1), Bytes(400, 2)}), 400);
    ASSERT_EQ(batch.receiveNow(socket.fd()), 2);
    EXPECT_EQ(datagramOf(message(1)), Bytes(400, 2));
}

TEST_P(ReceiveBatchTest, WaitsUntilItIsCancelled) {
    UdpSocket blocking(GetParam());
    ThreadMark mark;
    CancellableThread thread;
    ASSERT_EQ(thread.start([&] {
        ReceiveBatch waiting;
        EXPECT_EQ(waiting.await(blocking.fd()), 1);
        mark.set();
        waiting.await(blocking.fd());
        ADD_FAILURE() << "the second receive call returned";
    }),
              0);
    peer.send(toBytes("first"), blocking.address());
    ASSERT_TRUE(mark.eventuallyBlocks());
    EXPECT_EQ(thread.stop(), 0);
}

TEST_P(ReceiveBatchTest, ReportsAReceiveError) {
    EXPECT_EQ(batch.receiveNow(-1), -EBADF);
    EXPECT_EQ(batch.await(-1), -EBADF);
}

INSTANTIATE_TEST_SUITE_P(BothFamilies, ReceiveBatchTest, testing::Values(AF_INET, AF_INET6),
                         [](const auto& row) { return row.param == AF_INET ? "IPv4" : "IPv6"; });

}  // namespace
}  // namespace vesk
