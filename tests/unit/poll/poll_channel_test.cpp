#include "poll/poll_channel.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <list>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "support/bytes.h"
#include "support/descriptors.h"
#include "support/printed.h"
#include "support/thread_state.h"

namespace vesk {
namespace {

TEST(PollRecordTest, HasItsFieldsAtTheDocumentedOffsets) {
    const PollRecord record = encodePollCtlMsg({3, 0x04030201, 0x0d0c0b0a});
    PollRecord expected{};
    const std::uint32_t op = 3;
    std::memcpy(expected.data(), &op, sizeof(op));
    epoll_event event{};
    event.events = 0x04030201;
    event.data.u64 = 0x0d0c0b0a;
    static_assert(sizeof(event) == 12);
    std::memcpy(expected.data() + 4, &event, sizeof(event));
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

Bytes recordOf(const PollCtlMsg& message) {
    return toBytes(encodePollCtlMsg(message));
}

/// A row's header: "Rows", four zero bytes and the number of records in eight bytes.
Bytes rowHeader(std::uint64_t count) {
    Bytes header{'R', 'o', 'w', 's', 0, 0, 0, 0};
    header.resize(16);
    std::memcpy(header.data() + 8, &count, sizeof(count));
    return header;
}

Bytes rowOf(const std::vector<int>& fds, const PollCtlMsg& model = {EPOLL_CTL_MOD, EPOLLIN}) {
    Bytes datagram = rowHeader(fds.size());
    for (const int fd : fds) {
        const Bytes record = recordOf({model.op, model.events, fd});
        datagram.insert(datagram.end(), record.begin(), record.end());
    }
    return datagram;
}

std::vector<int> descriptorsFrom(int first, std::size_t count) {
    std::vector<int> fds(count);
    std::iota(fds.begin(), fds.end(), first);
    return fds;
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

class PollChannelTest : public DescriptorCountingTest {
 protected:
    void SetUp() override {
        DescriptorCountingTest::SetUp();
        ASSERT_EQ(createPollSocks(sender, server), 0);
    }

    void TearDown() override {
        sender.reset();
        server.reset();
        DescriptorCountingTest::TearDown();
    }

    /// The next datagram in the channel, whatever its length.
    Bytes receive() {
        Bytes bytes(1024);
        const ssize_t count = recv(server.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
        bytes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        return bytes;
    }

    /// Sends until the channel is full.
    void fill() {
        const PollRecord record = encodePollCtlMsg({EPOLL_CTL_MOD, EPOLLIN, -1});
        while (send(sender.get(), record.data(), record.size(), MSG_DONTWAIT) != -1) {
        }
        ASSERT_EQ(errno, EAGAIN);
    }

    UniqueFd sender;
    UniqueFd server;
};

TEST_F(PollChannelTest, ConnectsTwoLocalDatagramSockets) {
    for (const UniqueFd* end : {&sender, &server}) {
        EXPECT_EQ(socketOption(end->get(), SOL_SOCKET, SO_DOMAIN), AF_UNIX);
        EXPECT_EQ(socketOption(end->get(), SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
    }
}

TEST_F(PollChannelTest, IsNonBlockingAtThePollLoopsEndOnly) {
    EXPECT_NE(fcntl(server.get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(sender.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(PollChannelTest, SendsAnAddition) {
    const AtLogLevel level("debug");
    EXPECT_EQ(printedBy([this] { EXPECT_EQ(pollLoop_add_fd(sender.get(), 7, EPOLLIN), 0); }),
              "debug Successfully sent fd 7 (add, EPOLLIN) to poll loop\n");
    EXPECT_EQ(receive(), recordOf({EPOLL_CTL_ADD, EPOLLIN, 7}));
}

TEST_F(PollChannelTest, LogsEveryOtherEventMaskAsEpollout) {
    const AtLogLevel level("debug");
    EXPECT_EQ(printedBy([this] { EXPECT_EQ(pollLoop_add_fd(sender.get(), 7, EPOLLOUT), 0); }),
              "debug Successfully sent fd 7 (add, EPOLLOUT) to poll loop\n");
    EXPECT_EQ(receive(), recordOf({EPOLL_CTL_ADD, EPOLLOUT, 7}));
    EXPECT_EQ(printedBy([this] { pollLoop_add_fd(sender.get(), 7, EPOLLIN | EPOLLOUT); }),
              "debug Successfully sent fd 7 (add, EPOLLOUT) to poll loop\n");
}

TEST_F(PollChannelTest, SendsARearmingSilently) {
    const AtLogLevel level("trace");
    EXPECT_EQ(printedBy([this] { EXPECT_EQ(pollLoop_mod_fd(sender.get(), 7, EPOLLIN), 0); }), "");
    EXPECT_EQ(receive(), recordOf({EPOLL_CTL_MOD, EPOLLIN, 7}));
}

TEST_F(PollChannelTest, SendsManyRearmingsInOneDatagram) {
    const AtLogLevel level("trace");
    const std::vector<int> fds = descriptorsFrom(100, maxPollRecords);
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(pollLoop_mod_fds(sender.get(), fds, EPOLLIN), 0); }), "");
    EXPECT_EQ(receive(), rowOf(fds));
    EXPECT_EQ(receive(), Bytes());
}

TEST_F(PollChannelTest, SendsManyDeletionsInOneDatagram) {
    const AtLogLevel level("debug");
    const std::vector<int> fds{7, 9};
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(pollLoop_del_fds(sender.get(), fds), 0); }),
              "debug Successfully sent fd 7 (del) to poll loop\n"
              "debug Successfully sent fd 9 (del) to poll loop\n");
    EXPECT_EQ(receive(), rowOf(fds, {EPOLL_CTL_DEL, 0}));
    EXPECT_EQ(receive(), Bytes());
}

TEST_F(PollChannelTest, DoesNotLogARowThatCannotBeSent) {
    const AtLogLevel level("trace");
    const std::vector<int> fds{7, 8};
    const auto failsWith = [&fds](int pollsock, int result) {
        EXPECT_EQ(printedBy([&] {
                      EXPECT_EQ(pollLoop_mod_fds(pollsock, fds, EPOLLIN), result);
                      EXPECT_EQ(pollLoop_del_fds(pollsock, fds), result);
                  }),
                  "");
    };
    failsWith(-1, -EBADF);
    retirePollChannel(server.get());
    failsWith(sender.get(), -EPIPE);
}

TEST_F(PollChannelTest, SendsADeletion) {
    const AtLogLevel level("debug");
    EXPECT_EQ(printedBy([this] { EXPECT_EQ(pollLoop_del_fd(sender.get(), 7), 0); }),
              "debug Successfully sent fd 7 (del) to poll loop\n");
    EXPECT_EQ(receive(), recordOf({EPOLL_CTL_DEL, 0, 7}));
}

TEST_F(PollChannelTest, IsSilentAtTheDefaultLevel) {
    EXPECT_EQ(printedBy([this] {
                  pollLoop_add_fd(sender.get(), 7, EPOLLIN);
                  pollLoop_del_fd(sender.get(), 7);
              }),
              "");
}

TEST_F(PollChannelTest, DeliversRecordsWholeAndInOrder) {
    for (int fd = 10; fd < 15; ++fd) {
        pollLoop_mod_fd(sender.get(), fd, EPOLLIN);
    }
    for (int fd = 10; fd < 15; ++fd) {
        EXPECT_EQ(receive(), recordOf({EPOLL_CTL_MOD, EPOLLIN, fd}));
    }
}

const std::string failureText =
    "Error writing a control message to poll socket: bytes: -1 Error: Bad file descriptor\n";

TEST_F(PollChannelTest, ReportsARecordThatCannotBeSent) {
    EXPECT_EQ(printedBy([] { EXPECT_EQ(pollLoop_add_fd(-1, 7, EPOLLIN), -EBADF); }),
              "error pollLoop_add_fd" + failureText);
    EXPECT_EQ(printedBy([] { EXPECT_EQ(pollLoop_mod_fd(-1, 7, EPOLLIN), -EBADF); }),
              "error pollLoop_mod_fd" + failureText);
    EXPECT_EQ(printedBy([] { EXPECT_EQ(pollLoop_del_fd(-1, 7), -EBADF); }),
              "error pollLoop_del_fd" + failureText);
}

TEST_F(PollChannelTest, LeavesTheErrorInErrno) {
    printedBy([] {
        errno = 0;
        pollLoop_del_fd(-1, 7);
        EXPECT_EQ(errno, EBADF);
    });
}

TEST_F(PollChannelTest, DoesNotCloseADescriptorWhoseDeletionCouldNotBeSent) {
    const UniqueFd fd(dup(sender.get()));
    printedBy([&fd] { pollLoop_del_fd(-1, fd.get()); });
    EXPECT_TRUE(isOpen(fd.get()));
}

TEST_F(PollChannelTest, ReportsThatTheOtherEndIsClosed) {
    server.reset();
    EXPECT_EQ(printedBy([this] { EXPECT_LT(pollLoop_mod_fd(sender.get(), 7, EPOLLIN), 0); }),
              "error pollLoop_mod_fdError writing a control message to poll socket: bytes: -1 "
              "Error: Connection refused\n");
}

TEST_F(PollChannelTest, ReportsAShortageOfDescriptors) {
    UniqueFd first;
    UniqueFd second;
    int result = 0;
    const std::string printed = printedBy([&] {
        const DescriptorShortage shortage(1);
        result = createPollSocks(first, second);
    });
    EXPECT_EQ(result, -EMFILE);
    EXPECT_EQ(printed, "error Failed to create socketpair for poll socket: Too many open files\n");
    EXPECT_FALSE(first);
    EXPECT_FALSE(second);
}

TEST_F(PollChannelTest, BlocksSendersWhileItIsFull) {
    fill();
    ThreadMark mark;
    std::thread waiting([&] {
        mark.set();
        EXPECT_EQ(pollLoop_mod_fd(sender.get(), 7, EPOLLIN), 0);
    });
    ASSERT_TRUE(mark.eventuallyBlocks());
    while (!receive().empty()) {
    }
    waiting.join();
}

TEST_F(PollChannelTest, RetiringClosesOnlyDescriptorsWithAPendingDeletion) {
    const int deleted = dup(sender.get());
    const UniqueFd armed(dup(sender.get()));
    const UniqueFd added(dup(sender.get()));
    pollLoop_add_fd(sender.get(), added.get(), EPOLLIN);
    pollLoop_mod_fd(sender.get(), armed.get(), EPOLLIN);
    ASSERT_EQ(send(sender.get(), "short", 5, 0), 5);
    pollLoop_del_fd(sender.get(), deleted);
    EXPECT_EQ(printedBy([this] { retirePollChannel(server.get()); }), "");
    EXPECT_FALSE(isOpen(deleted));
    EXPECT_TRUE(isOpen(armed.get()));
    EXPECT_TRUE(isOpen(added.get()));
}

TEST_F(PollChannelTest, RetiringClosesTheDescriptorsOfAPendingRowOfDeletions) {
    const std::vector<int> deleted{dup(sender.get()), dup(sender.get()), dup(sender.get())};
    ASSERT_EQ(pollLoop_del_fds(sender.get(), deleted), 0);
    retirePollChannel(server.get());
    for (const int fd : deleted) {
        EXPECT_FALSE(isOpen(fd));
    }
}

TEST_F(PollChannelTest, ReportsAnAdditionAfterTheLoopHasEnded) {
    const AtLogLevel level("trace");
    retirePollChannel(server.get());
    EXPECT_EQ(
        printedBy([&] { EXPECT_EQ(pollLoop_add_fd(sender.get(), 7, EPOLLIN), -EPIPE); }),
        "error pollLoop_add_fdError writing a control message to poll socket: bytes: -1 Error: "
        "Broken pipe\n");
}

TEST_F(PollChannelTest, DoesNotLogOtherRequestsAfterTheLoopHasEnded) {
    const AtLogLevel level("trace");
    retirePollChannel(server.get());
    const UniqueFd deleted(dup(sender.get()));
    EXPECT_EQ(printedBy([&] {
                  EXPECT_EQ(pollLoop_mod_fd(sender.get(), 7, EPOLLIN), -EPIPE);
                  EXPECT_EQ(pollLoop_del_fd(sender.get(), deleted.get()), -EPIPE);
              }),
              "");
    EXPECT_TRUE(isOpen(deleted.get()));
}

TEST_F(PollChannelTest, RetiringReleasesEveryWaitingSender) {
    // More senders than the smallest queue has room for.
    constexpr std::size_t senderCount = 24;
    fill();
    std::list<ThreadMark> marks(senderCount);
    std::vector<std::thread> waiting;
    for (ThreadMark& mark : marks) {
        waiting.emplace_back([this, &mark] {
            UniqueFd fd(dup(sender.get()));
            mark.set();
            // If the request was sent, the thread that drains the channel closes the descriptor.
            if (pollLoop_del_fd(sender.get(), fd.get()) == 0) {
                fd.release();
            }
        });
    }
    for (const ThreadMark& mark : marks) {
        EXPECT_TRUE(mark.eventuallyBlocks());
    }
    EXPECT_EQ(printedBy([&] {
                  retirePollChannel(server.get());
                  for (std::thread& thread : waiting) {
                      thread.join();
                  }
              }),
              "");
    // Drains requests that were sent while the channel was being retired.
    retirePollChannel(server.get());
}

}  // namespace
}  // namespace vesk
