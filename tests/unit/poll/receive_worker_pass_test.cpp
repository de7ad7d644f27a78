// What a worker does between two passes: it calls the end of the pass, writes its lines and pauses.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "log/log.h"
#include "poll/receive_worker_fixture.h"
#include "support/printed.h"
#include "support/thread_state.h"

namespace vesk {
namespace {

using testing::ElementsAre;

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

/// Measures the time between passes with a descriptor that is never drained.
class WorkerPauseTest : public ReceiveWorkerTest {
 protected:
    using Clock = std::chrono::steady_clock;

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
