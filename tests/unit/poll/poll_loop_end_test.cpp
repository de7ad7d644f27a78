// What ends the poll loop, and what does not.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <memory>
#include <vector>

#include "poll/poll_channel.h"
#include "poll/poll_loop.h"
#include "poll/poll_loop_fixture.h"
#include "support/descriptors.h"
#include "support/printed.h"
#include "support/thread_state.h"
#include "support/udp_socket.h"

namespace vesk {
namespace {

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
