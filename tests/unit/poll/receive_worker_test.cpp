// How a worker serves descriptors, what it counts, and how it ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <numeric>
#include <utility>
#include <vector>

#include "poll/receive_worker_fixture.h"
#include "support/printed.h"
#include "support/thread_state.h"

namespace vesk {
namespace {

using testing::ElementsAre;

TEST_F(ReceiveWorkerTest, ServesDescriptorsInOrder) {
    startWorker();
    hand({5, 6, 7});
    EXPECT_TRUE(eventuallyServed({5, 6, 7}));
    hand({8});
    EXPECT_TRUE(eventuallyServed({5, 6, 7, 8}));
}

TEST_F(ReceiveWorkerTest, ServesADescriptorAgainUntilItIsDrained) {
    int calls = 0;
    receive = [&calls](int, bool& keep) {
        keep = ++calls < 4;
        return 1;
    };
    startWorker();
    hand({5});
    EXPECT_TRUE(eventuallyServed({5, 5, 5, 5}));
    EXPECT_TRUE(mark.eventuallyBlocks());
    EXPECT_EQ(served().size(), 4U);
}

TEST_F(ReceiveWorkerTest, KeepsADescriptorUntilKeepIsCleared) {
    std::atomic<int> calls{0};
    receive = [&calls](int, bool&) {
        ++calls;
        return 0;
    };
    startWorker();
    hand({5});
    EXPECT_TRUE(eventually([&calls] { return calls > 20; }));
    // The worker never stops by itself and uses `calls`, which is destroyed at the end of the test.
    worker.thread.stop();
}

TEST_F(ReceiveWorkerTest, ServesEachDescriptorOnceInEveryPass) {
    std::vector<int> left{3, 1, 2};
    receive = [&left](int fd, bool& keep) {
        keep = --left.at(static_cast<std::size_t>(fd)) > 0;
        return 1;
    };
    startWorker();
    hand({0, 1, 2});
    EXPECT_TRUE(eventuallyServed({0, 1, 2, 0, 2, 0}));
}

TEST_F(ReceiveWorkerTest, AcceptsNewDescriptorsDuringAPass) {
    // Queued in the middle of a pass, without a wake-up.
    bool handed = false;
    receive = [this, &handed](int fd, bool& keep) {
        keep = fd == 5 && !handed;
        if (!std::exchange(handed, true)) {
            const MutexLock lock(worker.mutex);
            worker.queue.push_back(6);
        }
        return 1;
    };
    startWorker();
    hand({5});
    EXPECT_TRUE(eventuallyServed({5, 5, 6}));
}

TEST_F(ReceiveWorkerTest, AddsUpPositiveResultsOnly) {
    receive = [](int fd, bool& keep) {
        keep = false;
        return fd == 1 ? 10 : fd == 2 ? -10 : fd == 3 ? 0 : 3;
    };
    startWorker();
    hand({1, 2, 3, 4});
    EXPECT_TRUE(eventuallyServed({1, 2, 3, 4}));
    EXPECT_TRUE(eventually([this] { return worker.receivedTotal.value() == 13; }));
}

TEST_F(ReceiveWorkerTest, PassesItsParameterOnUnchanged) {
    worker.workerParameter = 0xfedcba98;
    startWorker();
    hand({5, 6});
    ASSERT_TRUE(eventuallyServed({5, 6}));
    worker.thread.stop();
    EXPECT_THAT(parameters, ElementsAre(0xfedcba98, 0xfedcba98));
}

TEST_F(ReceiveWorkerTest, CountsAWakeAndTheDepthOfTheQueue) {
    startWaitingWorker();
    hand({5, 6, 7});
    ASSERT_TRUE(eventuallyServed({5, 6, 7}));
    EXPECT_EQ(worker.wakeCount.value(), 1U);
    EXPECT_EQ(worker.queueDepthSum.load(), 3U);
    ASSERT_TRUE(mark.eventuallyBlocks());
    hand({8});
    ASSERT_TRUE(eventuallyServed({5, 6, 7, 8}));
    EXPECT_EQ(worker.wakeCount.value(), 2U);
    EXPECT_EQ(worker.queueDepthSum.load(), 4U);
}

TEST_F(ReceiveWorkerTest, CountsAWakeWithAnEmptyQueueAndWaitsAgain) {
    startWaitingWorker();
    worker.wakeUp.post();
    EXPECT_TRUE(eventually([this] { return worker.wakeCount.value() == 1; }));
    EXPECT_EQ(worker.queueDepthSum.load(), 0U);
    EXPECT_TRUE(mark.eventuallyBlocks());
    EXPECT_THAT(served(), testing::IsEmpty());
}

TEST_F(ReceiveWorkerTest, CountsNoWakeWhenDescriptorsAreQueuedBeforeItWaits) {
    hand({5, 6});
    startWorker();
    ASSERT_TRUE(eventuallyServed({5, 6}));
    EXPECT_EQ(worker.wakeCount.value(), 0U);
    EXPECT_EQ(worker.queueDepthSum.load(), 0U);
}

TEST_F(ReceiveWorkerTest, WaitsAgainAfterManyDescriptors) {
    std::vector<int> many(40);
    std::iota(many.begin(), many.end(), 0);
    startWorker();
    hand(many);
    ASSERT_TRUE(eventuallyServed(many));
    EXPECT_TRUE(mark.eventuallyBlocks());
    many.push_back(99);
    hand({99});
    EXPECT_TRUE(eventuallyServed(many));
}

TEST_F(ReceiveWorkerTest, HoldsNoLockWhileItReceives) {
    receive = [this](int, bool& keep) {
        const MutexLock lock(worker.mutex);
        keep = false;
        return 1;
    };
    startWorker();
    hand({5});
    EXPECT_TRUE(eventuallyServed({5}));
}

TEST_F(ReceiveWorkerTest, CanBeEndedWhileItWaits) {
    startWaitingWorker();
    EXPECT_EQ(printedBy([this] { EXPECT_EQ(worker.thread.stop(), 0); }), "");
    // The lock is free.
    const MutexLock lock(worker.mutex);
}

TEST_F(ReceiveWorkerTest, CanBeEndedWhileItNeverWaits) {
    std::atomic<int> calls{0};
    receive = [&calls](int, bool&) {
        ++calls;
        return 0;
    };
    startWorker();
    hand({5});
    EXPECT_TRUE(eventually([&calls] { return calls > 0; }));
    EXPECT_EQ(worker.thread.stop(), 0);
}

TEST_F(ReceiveWorkerTest, IsNotEndedInTheMiddleOfAReceiveCall) {
    std::atomic<bool> inside{false};
    std::atomic<bool> finished{false};
    receive = [&](int, bool& keep) {
        inside = true;
        // A cancellation point, at which the thread must not be cancelled here.
        pthread_testcancel();
        finished = true;
        keep = true;
        return 0;
    };
    startWorker();
    hand({5});
    ASSERT_TRUE(eventually([&] { return inside.load(); }));
    EXPECT_EQ(worker.thread.stop(), 0);
    EXPECT_TRUE(finished);
}

}  // namespace
}  // namespace vesk
