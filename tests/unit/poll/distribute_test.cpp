#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>

#include <atomic>
#include <deque>
#include <memory>

#include "poll/poll_channel.h"
#include "poll/poll_loop.h"
#include "poll/poll_loop_fixture.h"
#include "support/printed.h"
#include "support/thread_state.h"

namespace vesk {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::shared_ptr<PollParam> idleWorker() {
    return std::make_shared<PollParam>([](int, bool&, std::uint32_t) { return 0; });
}

std::deque<int> queueOf(PollParam& worker) {
    const MutexLock lock(worker.mutex);
    return worker.queue;
}

class DistributeTest : public testing::Test {
 protected:
    void makeQueues(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            queues.push_back(idleWorker());
        }
    }

    PollParams queues;
    unsigned long start = 0;
};

TEST_F(DistributeTest, DistributesFiveDescriptorsToTwoQueues) {
    makeQueues(2);
    distributeReadyFds({11, 12, 13, 14, 15}, queues, start);
    EXPECT_THAT(queueOf(*queues[0]), ElementsAre(11, 13, 15));
    EXPECT_THAT(queueOf(*queues[1]), ElementsAre(12, 14));
    EXPECT_EQ(start, 5U);
}

TEST_F(DistributeTest, StartsAtTheQueueAfterTheLastBatch) {
    makeQueues(2);
    distributeReadyFds({11, 12, 13, 14, 15}, queues, start);
    distributeReadyFds({21, 22, 23}, queues, start);
    EXPECT_THAT(queueOf(*queues[0]), ElementsAre(11, 13, 15, 22));
    EXPECT_THAT(queueOf(*queues[1]), ElementsAre(12, 14, 21, 23));
    EXPECT_EQ(start, 8U);
}

TEST_F(DistributeTest, AppendsOneDescriptorToTheNextQueue) {
    makeQueues(3);
    start = 7;
    distributeReadyFds({11}, queues, start);
    EXPECT_THAT(queueOf(*queues[0]), IsEmpty());
    EXPECT_THAT(queueOf(*queues[1]), ElementsAre(11));
    EXPECT_THAT(queueOf(*queues[2]), IsEmpty());
    EXPECT_EQ(start, 8U);
}

TEST_F(DistributeTest, DropsDescriptorsWithoutQueues) {
    distributeReadyFds({11, 12}, queues, start);
    EXPECT_EQ(start, 2U);
}

TEST_F(DistributeTest, DoesNothingForAnEmptyBatch) {
    makeQueues(2);
    distributeReadyFds({}, queues, start);
    EXPECT_THAT(queueOf(*queues[0]), IsEmpty());
    EXPECT_EQ(start, 0U);
}

TEST_F(DistributeTest, AppendsAfterQueuedDescriptors) {
    makeQueues(1);
    {
        const MutexLock lock(queues[0]->mutex);
        queues[0]->queue.push_back(1);
    }
    distributeReadyFds({2, 3}, queues, start);
    EXPECT_THAT(queueOf(*queues[0]), ElementsAre(1, 2, 3));
}

TEST_F(DistributeTest, WakesOnlyAWaitingWorkerAndWakesItOnce) {
    makeQueues(1);
    PollParam& worker = *queues[0];
    ThreadMark mark;
    std::atomic<int> wakeUps{0};
    ASSERT_EQ(worker.thread.start([&] {
        mark.set();
        while (true) {
            {
                const CancellationScope cancellable;
                worker.wakeUp.wait();
            }
            ++wakeUps;
        }
    }),
              0);
    distributeReadyFds({11}, queues, start);
    {
        const MutexLock lock(worker.mutex);
        worker.waiting = true;
    }
    distributeReadyFds({12}, queues, start);
    distributeReadyFds({13}, queues, start);
    EXPECT_TRUE(eventually([&] { return wakeUps == 1; }));
    EXPECT_TRUE(mark.eventuallyBlocks());
    EXPECT_EQ(wakeUps, 1);
    EXPECT_THAT(queueOf(worker), ElementsAre(11, 12, 13));
    worker.thread.stop();
}

TEST(ReportPollErrorsTest, PrintsNothing) {
    const AtLogLevel level("trace");
    EXPECT_EQ(printedBy([] { reportPollErrors({1, 2}); }), "");
}

class PollThreadTest : public PollLoopTest {
 protected:
    void startThread() {
        param->readQueues = readQueues;
        param->writeQueues = writeQueues;
        ASSERT_EQ(param->thread.start([this] { runPollThread(*param); }), 0);
    }
};

TEST_F(PollThreadTest, DistributesReadableSocketsToTheReadQueues) {
    readQueues = {idleWorker(), idleWorker()};
    startThread();
    std::deque<WatchedSocket>& sockets = newSockets(3);
    for (WatchedSocket& socket : sockets) {
        // One by one, so that each socket is its own batch.
        const std::uint64_t expected = param->RdReadyNr.value() + 1;
        socket.makeReady();
        add(socket.fd(), EPOLLIN);
        EXPECT_TRUE(eventually([&] { return param->RdReadyNr.value() == expected; }));
        awaitRequests();
    }
    EXPECT_THAT(queueOf(*readQueues[0]), ElementsAre(sockets[0].fd(), sockets[2].fd()));
    EXPECT_THAT(queueOf(*readQueues[1]), ElementsAre(sockets[1].fd()));
}

TEST_F(PollThreadTest, DistributesWritableSocketsToTheWriteQueues) {
    readQueues = {idleWorker()};
    writeQueues = {idleWorker()};
    startThread();
    WatchedSocket& socket = newSocket();
    add(socket.fd(), EPOLLOUT);
    EXPECT_TRUE(eventually([this] { return !queueOf(*writeQueues[0]).empty(); }));
    EXPECT_THAT(queueOf(*writeQueues[0]), ElementsAre(socket.fd()));
    EXPECT_THAT(queueOf(*readQueues[0]), IsEmpty());
}

TEST_F(PollThreadTest, WorksWithoutQueues) {
    startThread();
    WatchedSocket& socket = newSocket();
    socket.makeReady();
    add(socket.fd(), EPOLLIN | EPOLLOUT);
    EXPECT_TRUE(eventually([this] { return param->WrReadyNr.value() == 1; }));
    awaitRequests();
}

}  // namespace
}  // namespace vesk
