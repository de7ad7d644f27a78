// The records of the message channel, and the datagrams that carry them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>

#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "poll/poll_channel.h"
#include "poll/poll_channel_fixture.h"

namespace vesk {
namespace {

TEST(PollRecordTest, HasItsFieldsAtTheDocumentedOffsets) {
    const PollRecord record = encodePollCtlMsg({3, 0x04030201, 0x0d0c0b0a});
    PollRecord expected{};
    const std::uint32_t op = 3;
    std::memcpy(expected.data(), &op, sizeof(op));
    // Not copied from an epoll_event, whose fields are packed on x86 only.
    const std::uint32_t events = 0x04030201;
    std::memcpy(expected.data() + 4, &events, sizeof(events));
    const std::uint64_t data = 0x0d0c0b0a;
    std::memcpy(expected.data() + 8, &data, sizeof(data));
    EXPECT_EQ(record, expected);
    EXPECT_EQ(record.size(), 16U);
}

TEST(PollRecordTest, LeavesTheHighHalfOfTheDataZero) {
    const PollRecord record = encodePollCtlMsg({2, 0, -1});
    std::uint64_t data = 0;
    std::memcpy(&data, record.data() + 8, sizeof(data));
    EXPECT_EQ(data, 0x00000000ffffffffU);
}

TEST(PollRecordTest, IsDecodedAsItWasEncoded) {
    const auto message = decodePollCtlMsg(encodePollCtlMsg({EPOLL_CTL_MOD, EPOLLOUT, 77}));
    ASSERT_TRUE(message.has_value());
    EXPECT_EQ(message->op, 3U);
    EXPECT_EQ(message->events, 4U);
    EXPECT_EQ(message->fd, 77);
}

TEST(PollRecordTest, IsNotDecodedWhenBytesAreMissing) {
    const PollRecord record{};
    EXPECT_FALSE(decodePollCtlMsg(std::span(record).first(15)));
    EXPECT_FALSE(decodePollCtlMsg(std::span(record).first(0)));
    EXPECT_TRUE(decodePollCtlMsg(record));
}

struct Taken {
    bool whole = false;
    std::vector<int> fds;
};

Taken takeAll(const Bytes& datagram) {
    Taken taken;
    taken.whole = forEachRecord(
        datagram, [&taken](const PollCtlMsg& message) { taken.fds.push_back(message.fd); });
    return taken;
}

TEST(PollDatagramTest, IsSplitIntoRecordsInOrder) {
    const Taken taken = takeAll(rowOf({7, 5, 6}));
    EXPECT_TRUE(taken.whole);
    EXPECT_THAT(taken.fds, testing::ElementsAre(7, 5, 6));
}

TEST(PollDatagramTest, IsOneRecordWithoutTheHeaderOfARow) {
    for (const std::size_t length : {16U, 17U, 20U, 32U, 64U}) {
        Bytes datagram = recordOf({EPOLL_CTL_MOD, EPOLLIN, 7});
        const Bytes other = recordOf({EPOLL_CTL_MOD, EPOLLIN, 8});
        while (datagram.size() < length) {
            datagram.insert(datagram.end(), other.begin(), other.end());
        }
        datagram.resize(length);
        const Taken taken = takeAll(datagram);
        EXPECT_TRUE(taken.whole) << length;
        EXPECT_THAT(taken.fds, testing::ElementsAre(7)) << length;
    }
}

TEST(PollDatagramTest, IsNotARowWhenLengthAndNumberOfRecordsDiffer) {
    Bytes oneMissing = rowOf({7, 5});
    oneMissing.resize(32);
    Bytes byteMissing = rowOf({7, 5});
    byteMissing.pop_back();
    Bytes byteMore = rowOf({7, 5});
    byteMore.push_back(0);
    for (const Bytes& datagram :
         {oneMissing, byteMissing, byteMore, rowHeader(0), rowHeader(1),
          rowHeader(0xffffffffffffffff), rowOf(descriptorsFrom(100, maxPollRecords + 1))}) {
        const Taken taken = takeAll(datagram);
        EXPECT_TRUE(taken.whole);
        EXPECT_EQ(taken.fds.size(), 1U) << datagram.size();
    }
}

TEST(PollDatagramTest, HoldsNoRecordWhenShorterThanARecord) {
    for (const std::size_t length : {0U, 1U, 12U, 15U}) {
        Bytes datagram = recordOf({EPOLL_CTL_MOD, EPOLLIN, 7});
        datagram.resize(length);
        const Taken taken = takeAll(datagram);
        EXPECT_FALSE(taken.whole) << length;
        EXPECT_THAT(taken.fds, testing::IsEmpty()) << length;
    }
}

}  // namespace
}  // namespace vesk
