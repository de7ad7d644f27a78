#include "poll/poll_channel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "poll/poll_channel_fixture.h"
#include "support/descriptors.h"
#include "support/printed.h"

namespace vesk {
namespace {

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

}  // namespace
}  // namespace vesk
