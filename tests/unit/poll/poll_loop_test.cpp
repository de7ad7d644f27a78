#include "poll/poll_loop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <deque>
#include <memory>
#include <vector>

#include "poll/poll_channel.h"
#include "poll/poll_loop_fixture.h"
#include "support/printed.h"
#include "support/thread_state.h"
#include "support/udp_socket.h"

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

TEST_F(PollLoopTest, ContinuesAfterASignal) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    struct sigaction before {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    startLoop();
    awaitRequests();
    EXPECT_EQ(printedBy([this] {
                  for (int i = 0; i < 10; ++i) {
                      pthread_kill(param->thread.id(), SIGUSR1);
                      expectNoFurtherBatch();
                  }
              }),
              "");
    param->thread.stop();
    sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(PollLoopTest, EndsWhenTheChannelIsRetired) {
    ThreadMark mark;
    EXPECT_EQ(printedBy([&] {
                  ASSERT_EQ(param->thread.start([&] {
                      mark.set();
                      EXPECT_EQ(pollLoop(*param, {}, {}, {}), 0);
                  }),
                            0);
                  ASSERT_TRUE(mark.eventuallyBlocks());
                  param->ended = true;
                  retirePollChannel(server.get());
                  EXPECT_TRUE(mark.eventuallyEnds());
              }),
              "");
}

TEST_F(PollLoopTest, EndsWhenItCannotWatchTheChannel) {
    PollThreadParam broken(-1, readQueues, writeQueues);
    const auto never = [](const std::vector<int>&) { ADD_FAILURE(); };
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(pollLoop(broken, never, never, never), -EBADF); }),
              "error Failed to add msgchanfd to epoll set: Bad file descriptor\n");
}

TEST_F(PollLoopTest, EndsWithoutAnEpollSet) {
    std::unique_ptr<PollThreadParam> broken;
    {
        const DescriptorShortage shortage(0);
        broken = std::make_unique<PollThreadParam>(server.get(), readQueues, writeQueues);
    }
    errno = 0;
    const auto never = [](const std::vector<int>&) { ADD_FAILURE(); };
    EXPECT_EQ(printedBy([&] { EXPECT_EQ(pollLoop(*broken, never, never, never), -EMFILE); }),
              "error Failed to add msgchanfd to epoll set: Too many open files\n");
}

TEST_F(PollLoopTest, EndsWhenItCanNoLongerWait) {
    std::atomic<int> result{0};
    const UniqueFd noEpollSet(open("/dev/null", O_RDONLY));
    EXPECT_EQ(printedBy([&] {
                  ASSERT_EQ(param->thread.start([&] {
                      result = pollLoop(*param,
                                        [&](const std::vector<int>&) {
                                            // The set's descriptor number refers to a file at the
                                            // next wait.
                                            dup2(noEpollSet.get(), param->epollSet.get());
                                        },
                                        {}, {});
                  }),
                            0);
                  WatchedSocket& socket = newSocket();
                  socket.makeReady();
                  add(socket.fd(), EPOLLIN);
                  EXPECT_TRUE(eventually([&result] { return result != 0; }));
              }),
              "error Failed epoll_wait: Invalid argument\n");
    EXPECT_EQ(result, -EINVAL);
}

TEST_F(PollLoopTest, ReportsAFailedReadOfTheChannelAndContinues) {
    // A socket whose next receive call fails.
    const UdpSocket refused;
    provokeRefusal(refused.fd());
    PollThreadParam failing(refused.fd(), readQueues, writeQueues);
    EXPECT_EQ(printedBy([&] {
                  ASSERT_EQ(failing.thread.start([&failing] { pollLoop(failing, {}, {}, {}); }), 0);
                  EXPECT_TRUE(eventually([&refused] { return !hasPendingError(refused.fd()); }));
                  EXPECT_EQ(failing.thread.stop(), 0);
              }),
              "error recv: msgchanfd\n");
}

TEST_F(PollLoopTest, RetiresTheChannelWhenItEndsByItself) {
    const int deleted = duplicate(sender.get());
    remove(deleted);
    // Without an epoll set the loop ends at once.
    std::unique_ptr<PollThreadParam> broken;
    {
        const DescriptorShortage shortage(0);
        broken = std::make_unique<PollThreadParam>(server.get(), readQueues, writeQueues);
    }
    EXPECT_FALSE(broken->ended);
    printedBy([&broken] { runPollThread(*broken); });
    EXPECT_TRUE(broken->ended);
    EXPECT_FALSE(isOpen(deleted));
    EXPECT_EQ(pollLoop_mod_fd(sender.get(), 7, EPOLLIN), -EPIPE);
}

TEST_F(PollLoopTest, EndsOnlyWhenItIsCancelled) {
    startLoop();
    awaitRequests();
    EXPECT_EQ(printedBy([this] { EXPECT_EQ(param->thread.stop(), 0); }), "");
}

}  // namespace
}  // namespace vesk
