// Invalid requests to the poll loop, and several requests in one datagram.

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <deque>
#include <string>
#include <vector>

#include "poll/poll_channel.h"
#include "poll/poll_loop_fixture.h"
#include "support/bytes.h"
#include "support/printed.h"

namespace vesk {
namespace {

class PollRequestsTest : public PollLoopTest {};

TEST_F(PollRequestsTest, ReportsAFailedRequestAndChangesNothing) {
    startLoop();
    WatchedSocket& socket = newSocket();
    add(socket.fd(), EPOLLIN);
    awaitRequests();
    const std::string fd = std::to_string(socket.fd());
    EXPECT_EQ(printedBy([&] {
                  add(socket.fd(), EPOLLIN);
                  awaitRequests();
              }),
              "error epoll_ctl error: msgchanfd ctl_op 1 fd " + fd + " errno 17 (File exists)\n");
    const int other = duplicate(socket.fd());
    const std::string otherFd = std::to_string(other);
    EXPECT_EQ(printedBy([&] {
                  arm(other, EPOLLIN);
                  awaitRequests();
              }),
              "error epoll_ctl error: msgchanfd ctl_op 3 fd " + otherFd +
                  " errno 2 (No such file or directory)\n");
    EXPECT_TRUE(isOpen(other));
    EXPECT_EQ(activeCount(), 1);
}

TEST_F(PollRequestsTest, ReportsTheDeletionOfADescriptorThatIsNotOpen) {
    startLoop();
    EXPECT_EQ(printedBy([this] {
                  remove(1000);
                  awaitRequests();
              }),
              "error epoll_ctl error: msgchanfd ctl_op 2 fd 1000 errno 9 (Bad file descriptor)\n");
    EXPECT_EQ(activeCount(), 0);
}

TEST_F(PollRequestsTest, ReportsAnUnknownOperation) {
    startLoop();
    WatchedSocket& socket = newSocket();
    const std::string fd = std::to_string(socket.fd());
    const PollRecord record = encodePollCtlMsg({9, EPOLLIN, socket.fd()});
    EXPECT_EQ(
        printedBy([&] {
            EXPECT_EQ(send(sender.get(), record.data(), record.size(), 0), 16);
            awaitRequests();
        }),
        "error epoll_ctl error: msgchanfd ctl_op 9 fd " + fd + " errno 22 (Invalid argument)\n");
}

TEST_F(PollRequestsTest, ReportsAShortRecordAndIgnoresIt) {
    startLoop();
    for (const std::size_t length : {12U, 15U, 1U, 0U}) {
        const std::array<char, 16> bytes{1};
        EXPECT_EQ(printedBy([&] {
                      EXPECT_EQ(send(sender.get(), bytes.data(), length, 0),
                                static_cast<ssize_t>(length));
                      awaitRequests();
                  }),
                  "error recv: msgchanfd: short read on a datagram socket!\n\n")
            << length;
    }
    EXPECT_EQ(activeCount(), 0);
    expectNoFurtherBatch();
}

TEST_F(PollRequestsTest, ExecutesEveryRecordOfADatagram) {
    startLoop();
    std::deque<WatchedSocket>& sockets = newSockets(3);
    std::vector<int> fds;
    for (WatchedSocket& socket : sockets) {
        add(socket.fd(), EPOLLIN);
        fds.push_back(socket.fd());
    }
    awaitRequests();
    EXPECT_EQ(pollLoop_mod_fds(sender.get(), fds, EPOLLIN), 0);
    awaitRequests();
    EXPECT_EQ(activeCount(), 6);
}

TEST_F(PollRequestsTest, ClosesEveryDescriptorOfARowOfDeletions) {
    startLoop();
    std::deque<WatchedSocket>& sockets = newSockets(3);
    std::vector<int> fds;
    for (WatchedSocket& socket : sockets) {
        add(socket.fd(), EPOLLIN);
        fds.push_back(socket.giveAway());
    }
    EXPECT_EQ(pollLoop_del_fds(sender.get(), fds), 0);
    for (WatchedSocket& socket : sockets) {
        EXPECT_TRUE(socket.awaitClosed());
    }
    awaitRequests();
    EXPECT_EQ(activeCount(), 0);
}

TEST_F(PollRequestsTest, ExecutesOnlyTheFirstRecordOfALongerDatagramWithoutARowHeader) {
    startLoop();
    for (const std::size_t length : {20U, 32U}) {
        std::deque<WatchedSocket>& sockets = newSockets(2);
        Bytes bytes;
        for (WatchedSocket& socket : sockets) {
            socket.makeReady();
            const Bytes record = toBytes(encodePollCtlMsg({EPOLL_CTL_ADD, EPOLLIN, socket.fd()}));
            bytes.insert(bytes.end(), record.begin(), record.end());
        }
        EXPECT_EQ(printedBy([&] {
                      EXPECT_EQ(send(sender.get(), bytes.data(), length, 0),
                                static_cast<ssize_t>(length));
                      EXPECT_EQ(nextBatch(), (Batch{"read", {sockets.front().fd()}}));
                      expectNoFurtherBatch();
                  }),
                  "")
            << length;
    }
}

}  // namespace
}  // namespace vesk
