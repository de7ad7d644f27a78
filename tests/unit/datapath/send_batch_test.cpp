#include "datapath/send_batch.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstdint>
#include <list>
#include <ostream>
#include <vector>

#include "datapath/datapath_fixture.h"

namespace vesk {
namespace {

/// The result that a batch reported for some datagrams.
struct Settled {
    const VeskEndpointDescriptor* account;
    SendOutcome outcome;
    std::size_t datagrams;

    bool operator==(const Settled&) const = default;
};

void PrintTo(const Settled& settled, std::ostream* out) {
    *out << "{account " << settled.account << ", outcome " << int(settled.outcome) << ", datagrams "
         << settled.datagrams << "}";
}

class SendBatchTest : public testing::Test {
 protected:
    void add(const Bytes& datagram, const SocketAddress& to, VeskEndpointDescriptor& account) {
        kept.push_back(datagram);
        batch.nextRoute().setDestination(to);
        batch.add(kept.back(), account);
    }
    void add(const Bytes& datagram, const SocketAddress& to) { add(datagram, to, *from); }

    void expectReceived(UdpSocket& socket, const std::vector<Bytes>& expected) {
        for (const Bytes& datagram : expected) {
            EXPECT_EQ(socket.receive(), datagram);
        }
        EXPECT_TRUE(socket.empty());
    }
    Settled sent(std::size_t datagrams) const { return {from.get(), SendOutcome::sent, datagrams}; }

    UdpSocket sender;
    UdpSocket receiver;
    UdpSocket other;
    EndpointPtr from = listeningEndpoint(sender);
    EndpointPtr second = listeningEndpoint(other);
    std::vector<Settled> settled;
    SendBatch batch{
        MSG_DONTWAIT, true,
        [this](VeskEndpointDescriptor& account, const SendResult& result, std::size_t datagrams) {
            settled.push_back({&account, result.outcome, datagrams});
        }};
    /// Does not move its elements, which the batch refers to.
    std::list<Bytes> kept;
};

TEST_F(SendBatchTest, SendsOneDatagram) {
    add(toBytes("datagram"), receiver.address());
    EXPECT_FALSE(batch.empty());
    batch.sendFrom(*from);
    EXPECT_TRUE(batch.empty());
    expectReceived(receiver, {toBytes("datagram")});
    EXPECT_EQ(settled, std::vector{sent(1)});
}

TEST_F(SendBatchTest, SendsDatagramsOfOneLengthAsOneMessage) {
    std::vector<Bytes> expected;
    for (std::uint8_t i = 0; i < 10; ++i) {
        expected.emplace_back(100, i);
        add(expected.back(), receiver.address());
    }
    batch.sendFrom(*from);
    expectReceived(receiver, expected);
    EXPECT_EQ(settled, std::vector{sent(10)});
}

TEST_F(SendBatchTest, KeepsTheOrderOfDifferentLengths) {
    std::vector<Bytes> expected;
    for (const std::size_t length : {5U, 5U, 3U, 5U, 7U, 7U, 1U, 1U, 1U, 2U, 2048U, 2048U}) {
        expected.emplace_back(length, static_cast<std::uint8_t>(expected.size()));
        add(expected.back(), receiver.address());
    }
    batch.sendFrom(*from);
    expectReceived(receiver, expected);
}

TEST_F(SendBatchTest, SendsToSeveralDestinations) {
    add(toBytes("a"), receiver.address());
    add(toBytes("b"), other.address());
    add(toBytes("c"), receiver.address());
    batch.sendFrom(*from);
    expectReceived(receiver, {toBytes("a"), toBytes("c")});
    expectReceived(other, {toBytes("b")});
    EXPECT_EQ(settled, (std::vector{sent(2), sent(1)}));
}

TEST_F(SendBatchTest, SendsTheDatagramsOfEachOfManyDestinationsTogether) {
    std::vector<UdpSocket> receivers(SendBatch::capacity / 2);
    for (std::uint8_t turn = 0; turn < 2; ++turn) {
        for (const UdpSocket& socket : receivers) {
            add(Bytes(1, turn), socket.address());
        }
    }
    ASSERT_TRUE(batch.full());
    batch.sendFrom(*from);
    for (UdpSocket& socket : receivers) {
        expectReceived(socket, {Bytes(1, 0), Bytes(1, 1)});
    }
    EXPECT_EQ(settled, std::vector(receivers.size(), sent(2)));
}

TEST_F(SendBatchTest, KeepsTheOrderOfEachDestinationWhenTheSourceChanges) {
    std::vector<Bytes> expected;
    for (std::uint8_t i = 0; i < 9; ++i) {
        kept.emplace_back(10, i);
        OutgoingMessage& route = batch.nextRoute();
        route.setDestination(i % 3 == 0 ? other.address() : receiver.address());
        route.addTrafficClass(i % 2, i % 2);
        batch.add(kept.back(), *from);
        if (i % 3 != 0) {
            expected.push_back(kept.back());
        }
    }
    batch.sendFrom(*from);
    expectReceived(receiver, expected);
    expectReceived(other, {Bytes(10, 0), Bytes(10, 3), Bytes(10, 6)});
}

TEST_F(SendBatchTest, SettlesTheDatagramsOfEachAccount) {
    add(toBytes("a"), receiver.address());
    add(toBytes("b"), receiver.address());
    add(toBytes("c"), receiver.address(), *second);
    add(toBytes("d"), receiver.address());
    batch.sendFrom(*from);
    EXPECT_EQ(settled, (std::vector{sent(2), {second.get(), SendOutcome::sent, 1}, sent(1)}));
}

TEST_F(SendBatchTest, SendsAFullBatchOfTheLongestDatagrams) {
    const Bytes longest(maxDatagramSize, 1);
    while (!batch.full()) {
        add(longest, kept.size() % 2 == 0 ? receiver.address() : other.address());
    }
    EXPECT_EQ(kept.size(), SendBatch::capacity);
    batch.sendFrom(*from);
    std::size_t total = 0;
    for (const Settled& it : settled) {
        EXPECT_EQ(it.outcome, SendOutcome::sent);
        total += it.datagrams;
    }
    EXPECT_EQ(total, SendBatch::capacity);
}

TEST_F(SendBatchTest, AFailedDatagramDoesNotAffectTheOthers) {
    const SocketAddress ofTheWrongFamily = UdpSocket(AF_INET6).address();
    add(toBytes("a"), receiver.address());
    add(toBytes("b"), receiver.address());
    add(toBytes("x"), ofTheWrongFamily);
    add(toBytes("y"), ofTheWrongFamily);
    add(toBytes("c"), receiver.address());
    batch.sendFrom(*from);
    expectReceived(receiver, {toBytes("a"), toBytes("b"), toBytes("c")});
    const Settled failed{from.get(), SendOutcome::failed, 1};
    EXPECT_EQ(settled, (std::vector{sent(3), failed, failed}));
    EXPECT_EQ(from->segmentLimit, maxDatagramSize);
}

TEST_F(SendBatchTest, AFailedFirstDatagramDoesNotAffectTheOthers) {
    add(toBytes("x"), UdpSocket(AF_INET6).address());
    add(toBytes("a"), receiver.address());
    batch.sendFrom(*from);
    expectReceived(receiver, {toBytes("a")});
    EXPECT_EQ(settled, (std::vector{Settled{from.get(), SendOutcome::failed, 1}, sent(1)}));
}

TEST_F(SendBatchTest, ARefusalIsReportedForOneDatagram) {
    add(toBytes("a"), receiver.address());
    add(toBytes("bb"), receiver.address());
    provokeRefusal(sender.fd());
    batch.sendFrom(*from);
    EXPECT_EQ(settled, (std::vector{Settled{from.get(), SendOutcome::refused, 1}, sent(1)}));
}

TEST_F(SendBatchTest, DatagramsOverTheSegmentLimitAreSentAlone) {
    from->segmentLimit = 4;
    std::vector<Bytes> expected;
    for (const std::size_t length : {5U, 5U, 4U, 4U}) {
        expected.emplace_back(length, static_cast<std::uint8_t>(expected.size()));
        add(expected.back(), receiver.address());
    }
    batch.sendFrom(*from);
    expectReceived(receiver, expected);
    EXPECT_EQ(settled, (std::vector{sent(1), sent(1), sent(2)}));
}

TEST_F(SendBatchTest, DropsAllWithoutSending) {
    add(toBytes("a"), receiver.address());
    add(toBytes("b"), receiver.address(), *second);
    batch.settleAll({SendOutcome::noRoom, 0});
    EXPECT_TRUE(batch.empty());
    EXPECT_TRUE(receiver.empty());
    EXPECT_EQ(settled, (std::vector{Settled{from.get(), SendOutcome::noRoom, 1},
                                    Settled{second.get(), SendOutcome::noRoom, 1}}));
}

TEST_F(SendBatchTest, IsUsableAgain) {
    add(toBytes("a"), receiver.address());
    batch.sendFrom(*from);
    add(toBytes("b"), other.address());
    batch.sendFrom(*from);
    expectReceived(receiver, {toBytes("a")});
    expectReceived(other, {toBytes("b")});
}

}  // namespace
}  // namespace vesk
