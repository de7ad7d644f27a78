// Senders that wait for room in the channel, and what happens to requests when it is retired.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <list>
#include <thread>
#include <vector>

#include "poll/poll_channel.h"
#include "poll/poll_channel_fixture.h"
#include "support/printed.h"
#include "support/thread_state.h"

namespace vesk {
namespace {

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
