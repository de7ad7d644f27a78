// What the poll loop reports and counts.
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <deque>
#include <vector>

#include "poll/poll_loop_fixture.h"
#include "support/printed.h"

namespace vesk {
namespace {

TEST_F(PollLoopTest, ReportsASocketThatIsReadyWhenItIsAdded) {
    startLoop();
    WatchedSocket& socket = newSocket();
    socket.makeReady();
    add(socket.fd(), EPOLLIN);
    EXPECT_EQ(nextBatch(), (Batch{"read", {socket.fd()}}));
    param->thread.stop();
    EXPECT_EQ(param->RdReadyNr.value(), 1U);
    EXPECT_EQ(param->WrReadyNr.value(), 0U);
    EXPECT_EQ(param->ErrorNr.value(), 0U);
    EXPECT_EQ(activeCount(), 0);
}

TEST_F(PollLoopTest, ReportsASocketThatBecomesReadyLater) {
    startLoop();
    WatchedSocket& socket = newSocket();
    add(socket.fd(), EPOLLIN);
    awaitRequests();
    EXPECT_EQ(activeCount(), 1);
    socket.makeReady();
    EXPECT_EQ(nextBatch(), (Batch{"read", {socket.fd()}}));
}

TEST_F(PollLoopTest, ReportsASocketAgainOnlyAfterItIsArmedAgain) {
    startLoop();
    WatchedSocket& socket = newSocket();
    socket.makeReady();
    add(socket.fd(), EPOLLIN);
    nextBatch();
    socket.makeReady();
    expectNoFurtherBatch();
    arm(socket.fd(), EPOLLIN);
    EXPECT_EQ(nextBatch(), (Batch{"read", {socket.fd()}}));
    EXPECT_EQ(param->RdReadyNr.value(), 3U);
}

TEST_F(PollLoopTest, CountsArmedSockets) {
    startLoop();
    WatchedSocket& first = newSocket();
    WatchedSocket& second = newSocket();
    add(first.fd(), EPOLLIN);
    add(second.fd(), EPOLLIN);
    awaitRequests();
    EXPECT_EQ(activeCount(), 2);
    first.makeReady();
    nextBatch();
    EXPECT_EQ(activeCount(), 1);
    first.drain();
    arm(first.fd(), EPOLLIN);
    awaitRequests();
    EXPECT_EQ(activeCount(), 2);
    arm(first.fd(), EPOLLIN);
    awaitRequests();
    EXPECT_EQ(activeCount(), 3);
    remove(second.giveAway());
    awaitRequests();
    EXPECT_EQ(activeCount(), 2);
}

TEST_F(PollLoopTest, ClosesADeletedSocket) {
    startLoop();
    WatchedSocket& socket = newSocket();
    add(socket.fd(), EPOLLIN);
    remove(socket.giveAway());
    EXPECT_TRUE(socket.awaitClosed());
    awaitRequests();
    EXPECT_EQ(activeCount(), 0);
}

TEST_F(PollLoopTest, ClosesASocketThatWasNeverAddedSilently) {
    EXPECT_EQ(printedBy([this] {
                  startLoop();
                  WatchedSocket& socket = newSocket();
                  remove(socket.giveAway());
                  EXPECT_TRUE(socket.awaitClosed());
                  awaitRequests();
              }),
              "");
    EXPECT_EQ(activeCount(), 0);
}

TEST_F(PollLoopTest, ClosesADuplicateOfAWatchedSocketSilently) {
    startLoop();
    WatchedSocket& socket = newSocket();
    add(socket.fd(), EPOLLIN);
    const int duplicate = dup(socket.fd());
    EXPECT_EQ(printedBy([&] {
                  remove(duplicate);
                  awaitRequests();
              }),
              "");
    EXPECT_FALSE(isOpen(duplicate));
    EXPECT_EQ(activeCount(), 1);
    socket.makeReady();
    EXPECT_EQ(nextBatch(), (Batch{"read", {socket.fd()}}));
}

TEST_F(PollLoopTest, ReportsReadinessForWriting) {
    startLoop();
    WatchedSocket& socket = newSocket();
    add(socket.fd(), EPOLLOUT);
    EXPECT_EQ(nextBatch(), (Batch{"write", {socket.fd()}}));
    EXPECT_EQ(param->WrReadyNr.value(), 1U);
    EXPECT_EQ(param->RdReadyNr.value(), 0U);
    EXPECT_EQ(activeCount(), 0);
}

TEST_F(PollLoopTest, ReportsOneSocketForEveryEventItHas) {
    startLoop();
    WatchedSocket& socket = newSocket();
    socket.makeReady();
    socket.hangUp();
    add(socket.fd(), EPOLLIN | EPOLLOUT);
    EXPECT_EQ(nextBatch(), (Batch{"read", {socket.fd()}}));
    EXPECT_EQ(nextBatch(), (Batch{"write", {socket.fd()}}));
    EXPECT_EQ(nextBatch(), (Batch{"error", {socket.fd()}}));
    EXPECT_EQ(param->RdReadyNr.value(), 1U);
    EXPECT_EQ(param->WrReadyNr.value(), 1U);
    EXPECT_EQ(param->ErrorNr.value(), 1U);
    // The socket was counted once when it was added, and once less for each direction.
    EXPECT_EQ(activeCount(), -1);
}

TEST_F(PollLoopTest, CountsAHangUpAndPrintsNothing) {
    Pipe& pipe = newPipe();
    EXPECT_EQ(printedBy([&] {
                  startLoop();
                  // Without EPOLLIN the loop reports only the hang-up.
                  add(pipe.read.get(), EPOLLOUT);
                  awaitRequests();
                  pipe.write.reset();
                  EXPECT_EQ(nextBatch(), (Batch{"error", {pipe.read.get()}}));
              }),
              "");
    EXPECT_EQ(param->ErrorNr.value(), 1U);
    EXPECT_EQ(activeCount(), 1);
    EXPECT_TRUE(isOpen(pipe.read.get()));
}

TEST_F(PollLoopTest, ReportsAllReadySocketsInOneBatch) {
    startLoop();
    std::deque<WatchedSocket>& sockets = newSockets(5);
    for (WatchedSocket& socket : sockets) {
        add(socket.fd(), EPOLLIN);
    }
    awaitRequests();
    std::vector<int> expected;
    {
        const Standstill standstill(*this);
        for (WatchedSocket& socket : sockets) {
            socket.makeReady();
            expected.push_back(socket.fd());
        }
    }
    EXPECT_EQ(nextBatch(), (Batch{"read", expected}));
}

TEST_F(PollLoopTest, SortsOneBatchByEvent) {
    startLoop();
    WatchedSocket& readable = newSocket();
    WatchedSocket& writable = newSocket();
    Pipe& hungUp = newPipe();
    add(readable.fd(), EPOLLIN);
    add(hungUp.read.get(), EPOLLOUT);
    awaitRequests();
    {
        const Standstill standstill(*this);
        hungUp.write.reset();
        add(writable.fd(), EPOLLOUT);
        readable.makeReady();
    }
    EXPECT_EQ(nextBatch(), (Batch{"read", {readable.fd()}}));
    EXPECT_EQ(nextBatch(), (Batch{"error", {hungUp.read.get()}}));
    EXPECT_EQ(nextBatch(), (Batch{"write", {writable.fd()}}));
}

TEST_F(PollLoopTest, ServesManySocketsThatAreAddedAndDeleted) {
    startLoop();
    for (int round = 0; round < 20; ++round) {
        std::deque<WatchedSocket>& sockets = newSockets(8);
        std::vector<int> reported;
        for (WatchedSocket& socket : sockets) {
            add(socket.fd(), EPOLLIN);
            socket.makeReady();
        }
        while (reported.size() < sockets.size()) {
            const Batch batch = nextBatch();
            ASSERT_EQ(batch.kind, "read");
            reported.insert(reported.end(), batch.fds.begin(), batch.fds.end());
        }
        for (WatchedSocket& socket : sockets) {
            remove(socket.giveAway());
            EXPECT_TRUE(socket.awaitClosed());
        }
    }
    awaitRequests();
    EXPECT_EQ(param->RdReadyNr.value(), 160U);
    // Each socket was counted once and subtracted twice: when it was ready and when it was deleted.
    EXPECT_EQ(activeCount(), -160);
}

}  // namespace
}  // namespace vesk
