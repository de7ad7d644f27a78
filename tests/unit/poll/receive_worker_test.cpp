#include "poll/receive_worker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <numeric>
#include <optional>
#include <utility>
#include <vector>

#include "log/log.h"
#include "poll/poll_loop.h"
#include "support/printed.h"
#include "support/thread_state.h"

namespace vesk {
namespace {

using Clock = std::chrono::steady_clock;
using testing::ElementsAre;

/// A worker on its thread. The test supplies the receive function.
class ReceiveWorkerTest : public testing::Test {
 protected:
    void TearDown() override { worker.thread.stop(); }

    void startWorker() {
        ASSERT_EQ(worker.thread.start([this] {
            mark.set();
            runReceiveWorker(worker);
        }),
                  0);
    }

    /// Starts the worker and returns when it waits for descriptors.
    void startWaitingWorker() {
        startWorker();
        ASSERT_TRUE(mark.eventuallyBlocks());
    }

    void hand(const std::vector<int>& fds) {
        unsigned long start = 0;
        distributeReadyFds(fds, {{std::shared_ptr<PollParam>(), &worker}}, start);
    }

    std::vector<int> served() {
        const std::lock_guard lock(servedLock_);
        return served_;
    }

    bool eventuallyServed(const std::vector<int>& expected) {
        return eventually([&] { return served() == expected; });
    }

    /// The receive call; by default it clears `keep` and returns one datagram.
    std::function<int(int fd, bool& keep)> receive = [](int, bool& keep) {
        keep = false;
        return 1;
    };
    /// Called between two passes.
    PassEndFunction passEnd = [](const LogDelay&) { return std::nullopt; };
    std::vector<std::uint32_t> parameters;
    PollParam worker{[this](int fd, bool& keep, std::uint32_t parameter) {
                         EXPECT_TRUE(keep);
                         const int result = receive(fd, keep);
                         const std::lock_guard lock(servedLock_);
                         served_.push_back(fd);
                         parameters.push_back(parameter);
                         return result;
                     },
                     [this](const LogDelay& lines) { return passEnd(lines); }};
    ThreadMark mark;

 private:
    std::mutex servedLock_;
    std::vector<int> served_;
};

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

TEST_F(ReceiveWorkerTest, CallsThePassEndBeforeTheNextPassOrWait) {
    std::vector<std::size_t> servedBefore;
    std::atomic<int> passes{0};
    receive = [this](int fd, bool& keep) {
        keep = fd == 6 && served().size() < 3;
        return 1;
    };
    passEnd = [&](const LogDelay& lines) {
        EXPECT_FALSE(lines.holdsLines());
        servedBefore.push_back(served().size());
        ++passes;
        return std::nullopt;
    };
    startWorker();
    hand({5, 6});
    EXPECT_TRUE(eventuallyServed({5, 6, 6, 6}));
    EXPECT_TRUE(mark.eventuallyBlocks());
    worker.thread.stop();
    EXPECT_THAT(servedBefore, ElementsAre(2, 3, 4));
}

TEST_F(ReceiveWorkerTest, WritesItsLinesAfterTheEndOfThePass) {
    receive = [](int fd, bool& keep) {
        logError("served ", fd);
        keep = false;
        return 1;
    };
    passEnd = [&](const LogDelay& lines) {
        EXPECT_TRUE(lines.holdsLines());
        // Written directly, not through the log, whose lines are held back.
        EXPECT_EQ(write(STDOUT_FILENO, "end of the pass\n", 16), 16);
        return std::nullopt;
    };
    EXPECT_EQ(printedBy([&] {
                  hand({5, 6});
                  startWorker();
                  EXPECT_TRUE(eventuallyServed({5, 6}));
                  EXPECT_TRUE(mark.eventuallyBlocks());
              }),
              "end of the pass\nerror served 5\nerror served 6\n");
}

TEST_F(ReceiveWorkerTest, CallsThePassEndAgainAfterTheDelayItReturned) {
    std::atomic<int> passes{0};
    passEnd = [&](const LogDelay&) -> std::optional<std::chrono::milliseconds> {
        return ++passes < 4 ? std::optional(std::chrono::milliseconds(1)) : std::nullopt;
    };
    startWorker();
    hand({5});
    EXPECT_TRUE(eventually([&] { return passes == 4; }));
    EXPECT_TRUE(mark.eventuallyBlocks());
    EXPECT_EQ(passes, 4);
    EXPECT_THAT(served(), ElementsAre(5));
    hand({6});
    EXPECT_TRUE(eventuallyServed({5, 6}));
}

TEST(PlainReceiveWorkerTest, WorksWithoutAPassEnd) {
    std::atomic<int> calls{0};
    PollParam worker([&calls](int, bool& keep, std::uint32_t) {
        keep = ++calls < 3;
        return 0;
    });
    {
        const MutexLock lock(worker.mutex);
        worker.queue.push_back(5);
    }
    ASSERT_EQ(worker.thread.start([&worker] { runReceiveWorker(worker); }), 0);
    EXPECT_TRUE(eventually([&calls] { return calls == 3; }));
    worker.thread.stop();
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

/// Measures the time between passes with a descriptor that is never drained.
class WorkerPauseTest : public ReceiveWorkerTest {
 protected:
    std::vector<Clock::duration> intervals(std::uint32_t pause, std::size_t count) {
        std::mutex lock;
        std::vector<Clock::time_point> passes;
        // The thread that calls it is stopped below, while they still exist.
        // cppcheck-suppress danglingLifetime
        receive = [&](int, bool&) {
            const std::lock_guard guard(lock);
            passes.push_back(Clock::now());
            return 0;
        };
        worker.pause = pause;
        startWorker();
        hand({5});
        EXPECT_TRUE(eventually([&] {
            const std::lock_guard guard(lock);
            return passes.size() > count;
        }));
        worker.thread.stop();
        std::vector<Clock::duration> result;
        for (std::size_t i = 1; i < passes.size(); ++i) {
            result.push_back(passes[i] - passes[i - 1]);
        }
        return result;
    }
};

TEST_F(WorkerPauseTest, SleepsTheMicrosecondsOfAShortPause) {
    EXPECT_THAT(intervals(20000, 5), testing::Each(testing::Ge(std::chrono::milliseconds(20))));
}

TEST_F(WorkerPauseTest, SleepsTheLongestShortPauseToTheMicrosecond) {
    EXPECT_THAT(intervals(999999, 1),
                testing::Each(testing::Ge(std::chrono::microseconds(999999))));
}

TEST_F(WorkerPauseTest, SleepsWholeSecondsOfALongPause) {
    const std::vector<Clock::duration> slept = intervals(1500000, 2);
    EXPECT_THAT(slept, testing::Each(testing::Ge(std::chrono::seconds(1))));
    // A busy machine may delay one pass, but is unlikely to delay each by half a second.
    EXPECT_THAT(slept, testing::Contains(testing::Lt(std::chrono::milliseconds(1500))));
}

TEST_F(WorkerPauseTest, CanBeEndedDuringItsPause) {
    receive = [](int, bool&) { return 0; };
    worker.pause = 3600000000;
    startWorker();
    hand({5});
    ASSERT_TRUE(eventuallyServed({5}));
    EXPECT_EQ(worker.thread.stop(), 0);
}

}  // namespace
}  // namespace vesk
