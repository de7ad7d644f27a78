#include "lib/datagram_batch.h"

#include <gtest/gtest.h>
#include <netinet/udp.h>

#include <cerrno>
#include <deque>
#include <numeric>

#include "lib/udp_socket.h"
#include "refused_messages.h"

namespace vesk::bench {
namespace {

using Sizes = std::vector<std::size_t>;
using Bytes = std::vector<std::byte>;

/// A datagram that begins with its number.
Bytes numbered(std::size_t number, std::size_t size) {
    Bytes bytes(size);
    bytes.front() = static_cast<std::byte>(number);
    return bytes;
}

class DatagramBatchTest : public testing::Test {
 protected:
    DatagramBatchTest() { sender_.connectTo(loopbackAddress(receiver_.port())); }
    ~DatagramBatchTest() override { refuseMergedMessages(0); }

    /// Adds datagrams with these sizes, numbered from 0.
    void addConnected(SendBatch& batch, const Sizes& sizes) {
        for (const std::size_t size : sizes) {
            batch.add(stored_.emplace_back(numbered(stored_.size(), size)));
        }
    }

    static Sizes receivedSizes(const UdpSocket& socket) {
        Sizes sizes;
        Bytes buffer(1 << 16);
        for (ssize_t got;
             (got = ::recv(socket.fd(), buffer.data(), buffer.size(), MSG_DONTWAIT)) >= 0;) {
            sizes.push_back(static_cast<std::size_t>(got));
        }
        return sizes;
    }

    /// The numbers of the datagrams that have arrived, each received by itself.
    std::vector<int> receivedNumbers() const {
        std::vector<int> numbers;
        for (std::byte number; ::recv(receiver_.fd(), &number, 1, MSG_DONTWAIT) > 0;) {
            numbers.push_back(static_cast<int>(number));
        }
        return numbers;
    }

    static std::vector<int> upTo(std::size_t count) {
        std::vector<int> numbers(count);
        std::iota(numbers.begin(), numbers.end(), 0);
        return numbers;
    }

    UdpSocket receiver_;
    UdpSocket sender_;
    std::deque<Bytes> stored_;
    SendBatch merging_{Merging::on};
};

TEST_F(DatagramBatchTest, SendsDatagramsOfOneLengthAsOneMessage) {
    receiver_.mergeReceives();
    addConnected(merging_, Sizes(16, 100));
    EXPECT_EQ(merging_.send(sender_.fd()), 16);
    EXPECT_EQ(receivedSizes(receiver_), Sizes{1600});
    EXPECT_EQ(merging_.mergedMessages(), 1);
}

TEST_F(DatagramBatchTest, SendsEachDatagramByItselfWithoutMerging) {
    receiver_.mergeReceives();
    SendBatch batch;
    addConnected(batch, Sizes(16, 100));
    EXPECT_EQ(batch.send(sender_.fd()), 16);
    EXPECT_EQ(receivedSizes(receiver_), Sizes(16, 100));
    EXPECT_EQ(batch.mergedMessages(), 0);
}

TEST_F(DatagramBatchTest, StartsANewMessageForEachOtherLength) {
    receiver_.mergeReceives();
    addConnected(merging_, {10, 10, 20, 10, 30, 30, 30});
    EXPECT_EQ(merging_.send(sender_.fd()), 7);
    EXPECT_EQ(receivedSizes(receiver_), (Sizes{20, 20, 10, 90}));
    EXPECT_EQ(merging_.mergedMessages(), 2);
}

TEST_F(DatagramBatchTest, StartsANewMessageForEachOtherDestination) {
    UdpSocket other;
    const UdpSocket unconnected;
    receiver_.mergeReceives();
    other.mergeReceives();
    const sockaddr_in here = loopbackAddress(receiver_.port());
    const sockaddr_in there = loopbackAddress(other.port());
    const Bytes datagram(10);
    for (const sockaddr_in& destination : {here, here, there, there, there, here}) {
        merging_.add(datagram, destination);
    }
    EXPECT_EQ(merging_.send(unconnected.fd()), 6);
    EXPECT_EQ(receivedSizes(receiver_), (Sizes{20, 10}));
    EXPECT_EQ(receivedSizes(other), Sizes{30});
}

TEST_F(DatagramBatchTest, DoesNotMergeEmptyDatagrams) {
    receiver_.mergeReceives();
    addConnected(merging_, {1, 1});
    merging_.add({});
    merging_.add({});
    EXPECT_EQ(merging_.send(sender_.fd()), 4);
    EXPECT_EQ(receivedSizes(receiver_), (Sizes{2, 0, 0}));
}

TEST_F(DatagramBatchTest, KeepsMessagesBelow65000Bytes) {
    receiver_.mergeReceives();
    addConnected(merging_, Sizes(batchSize, 1250));
    EXPECT_TRUE(merging_.full());
    EXPECT_EQ(merging_.send(sender_.fd()), batchSize);
    EXPECT_EQ(receivedSizes(receiver_), (Sizes{51 * 1250UL, 13 * 1250UL}));
}

TEST_F(DatagramBatchTest, ReceiversWithoutMergingSeeSingleDatagrams) {
    addConnected(merging_, Sizes(16, 100));
    EXPECT_EQ(merging_.send(sender_.fd()), 16);
    EXPECT_EQ(receivedNumbers(), upTo(16));
}

TEST_F(DatagramBatchTest, SendsSinglyIfTheKernelRefuses) {
    // Without checksums it segments nothing.
    const int on = 1;
    ASSERT_EQ(::setsockopt(sender_.fd(), SOL_SOCKET, SO_NO_CHECK, &on, sizeof on), 0);
    addConnected(merging_, Sizes(16, 100));
    EXPECT_EQ(merging_.send(sender_.fd()), 16);
    EXPECT_EQ(receivedNumbers(), upTo(16));
    EXPECT_EQ(merging_.mergedMessages(), 0);
}

TEST_F(DatagramBatchTest, SendsSinglyFromTheFirstRefusedMessageOn) {
    for (const int error : {EIO, EINVAL, EMSGSIZE}) {
        refuseMergedMessages(error);
        SendBatch batch(Merging::on);
        stored_.clear();
        addConnected(batch, {10, 20, 30, 30, 40, 50, 50, 50});
        EXPECT_EQ(batch.send(sender_.fd()), 8) << error;
        EXPECT_EQ(receivedNumbers(), upTo(8)) << error;
        EXPECT_EQ(batch.mergedMessages(), 0) << error;
    }
}

TEST_F(DatagramBatchTest, DoesNotMergeAgainAfterARefusal) {
    refuseMergedMessages(EIO);
    addConnected(merging_, {10, 10});
    EXPECT_EQ(merging_.send(sender_.fd()), 2);
    refuseMergedMessages(0);
    addConnected(merging_, {10, 10});
    EXPECT_EQ(merging_.send(sender_.fd()), 2);
    EXPECT_EQ(merging_.mergedMessages(), 0);
    EXPECT_EQ(receivedNumbers(), upTo(4));
}

TEST_F(DatagramBatchTest, ReportsTheDatagramsSentBeforeAnotherError) {
    refuseMergedMessages(ENOBUFS);
    addConnected(merging_, {10, 20, 30, 30, 40});
    EXPECT_EQ(merging_.send(sender_.fd()), 2);
    EXPECT_EQ(receivedNumbers(), upTo(2));
    refuseMergedMessages(0);
    addConnected(merging_, {10, 10});
    EXPECT_EQ(merging_.send(sender_.fd()), 2);
    EXPECT_EQ(merging_.mergedMessages(), 1);
}

TEST_F(DatagramBatchTest, SplitsAMergedMessageIntoItsDatagrams) {
    UdpSocket other;
    other.connectTo(loopbackAddress(receiver_.port()));
    receiver_.mergeReceives();
    const int segment = 100;
    ASSERT_EQ(::setsockopt(sender_.fd(), SOL_UDP, UDP_SEGMENT, &segment, sizeof segment), 0);
    Bytes message(250);
    message[100] = std::byte{1};
    message[200] = std::byte{2};
    ASSERT_EQ(::send(sender_.fd(), message.data(), message.size(), 0), 250);
    ASSERT_EQ(::send(other.fd(), "\3", 1, 0), 1);

    ReceiveBatch received(Merging::on);
    ASSERT_EQ(received.receive(receiver_.fd(), MSG_DONTWAIT), 4);
    Sizes sizes;
    for (std::size_t i = 0; i < 4; ++i) {
        const auto datagram = received.datagram(i);
        sizes.push_back(datagram.size());
        EXPECT_EQ(datagram.front(), static_cast<std::byte>(i));
        EXPECT_EQ(ntohs(received.source(i).sin_port), i < 3 ? sender_.port() : other.port());
    }
    EXPECT_EQ(sizes, (Sizes{100, 100, 50, 1}));
}

TEST_F(DatagramBatchTest, ReceivesWholeBatchesOfLongMergedMessages) {
    receiver_.mergeReceives();
    ReceiveBatch received(Merging::on);
    for (int round = 0; round < 2; ++round) {
        stored_.clear();
        addConnected(merging_, Sizes(batchSize, 1000));
        ASSERT_EQ(merging_.send(sender_.fd()), batchSize);
        ASSERT_EQ(received.receive(receiver_.fd(), MSG_DONTWAIT), batchSize);
        for (std::size_t i = 0; i < batchSize; ++i) {
            EXPECT_EQ(received.datagram(i).size(), 1000);
            EXPECT_EQ(received.datagram(i).front(), static_cast<std::byte>(i));
        }
    }
}

TEST_F(DatagramBatchTest, ReceivesSingleDatagramsWithAndWithoutMerging) {
    for (const Merging merging : {Merging::off, Merging::on}) {
        SendBatch batch;
        stored_.clear();
        addConnected(batch, {5, 2048});
        batch.add({});
        ASSERT_EQ(batch.send(sender_.fd()), 3);
        ReceiveBatch received(merging);
        ASSERT_EQ(received.receive(receiver_.fd(), MSG_DONTWAIT), 3);
        EXPECT_EQ(received.datagram(0).size(), 5);
        EXPECT_EQ(received.datagram(1).size(), 2048);
        EXPECT_EQ(received.datagram(2).size(), 0);
        EXPECT_EQ(received.receive(receiver_.fd(), MSG_DONTWAIT), 0);
    }
}

}  // namespace
}  // namespace vesk::bench
