#include "tasks/periodic_task.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <string>
#include <vector>

#include "support/printed.h"
#include "support/thread_state.h"

namespace vesk {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::nanoseconds second = std::chrono::seconds(1);
constexpr std::chrono::nanoseconds millisecond = std::chrono::milliseconds(1);

/// An action throws this to end a task that runs on the test's own thread.
struct Enough {};

std::string passOf(const std::string& name, const std::string& seconds) {
    return "info Task [" + name + "] will execute in [" + seconds + "s]\ninfo Task [" + name +
           "] now executing\n";
}

class PeriodicTaskTest : public testing::Test {
 protected:
    // The task disables cancellation in the thread that runs it.
    void TearDown() override { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr); }

    /// Runs the task on this thread until the action has run `passes` times.
    std::string runPasses(
        int passes, std::chrono::nanoseconds& period, const std::function<void()>& action = [] {}) {
        return printedBy([&] {
            int left = passes;
            EXPECT_THROW(runPeriodicTask("T", period,
                                         [&] {
                                             times.push_back(Clock::now());
                                             action();
                                             if (--left == 0) {
                                                 throw Enough();
                                             }
                                         }),
                         Enough);
        });
    }

    std::vector<Clock::time_point> times;
};

TEST_F(PeriodicTaskTest, RunsWithoutPauseWithAPeriodOfZero) {
    std::chrono::nanoseconds period{0};
    EXPECT_EQ(runPasses(3, period), passOf("T", "0") + passOf("T", "0") + passOf("T", "0"));
}

TEST_F(PeriodicTaskTest, RunsWithoutPauseWithANegativePeriod) {
    std::chrono::nanoseconds period = -2 * second;
    EXPECT_EQ(runPasses(2, period), passOf("T", "-2") + passOf("T", "-2"));
}

TEST_F(PeriodicTaskTest, LogsAPeriodBelowASecondAsZeroAndSleepsIt) {
    std::chrono::nanoseconds period = 50 * millisecond;
    const auto begin = Clock::now();
    EXPECT_EQ(runPasses(2, period), passOf("T", "0") + passOf("T", "0"));
    EXPECT_GE(times[0] - begin, std::chrono::milliseconds(50));
    EXPECT_GE(times[1] - times[0], std::chrono::milliseconds(50));
}

TEST_F(PeriodicTaskTest, LogsThePeriodInWholeSecondsAndSleepsAllOfIt) {
    std::chrono::nanoseconds period = second + 100 * millisecond;
    const auto begin = Clock::now();
    EXPECT_EQ(runPasses(1, period), passOf("T", "1"));
    EXPECT_GE(times[0] - begin, std::chrono::milliseconds(1100));
}

TEST_F(PeriodicTaskTest, ReadsThePeriodBeforeEachPass) {
    std::chrono::nanoseconds period{0};
    EXPECT_EQ(runPasses(3, period, [&period] { period -= second; }),
              passOf("T", "0") + passOf("T", "-1") + passOf("T", "-2"));
}

TEST_F(PeriodicTaskTest, ThrowsWithoutAnAction) {
    const std::chrono::nanoseconds period{0};
    printedBy([&] { EXPECT_THROW(runPeriodicTask("T", period, {}), std::bad_function_call); });
}

TEST_F(PeriodicTaskTest, IsSilentBelowItsLevel) {
    const AtLogLevel level("warn");
    std::chrono::nanoseconds period{0};
    EXPECT_EQ(runPasses(2, period), "");
}

TEST_F(PeriodicTaskTest, RunsOnItsOwnThread) {
    std::atomic<pthread_t> ran{};
    std::atomic<int> passes{0};
    PeriodicTask task("Named", millisecond, [&] {
        ran = pthread_self();
        ++passes;
    });
    const std::string printed = printedBy([&] {
        ASSERT_EQ(task.start(), 0);
        EXPECT_TRUE(eventually([&] { return passes >= 3; }));
        EXPECT_EQ(ran, task.threadId());
        EXPECT_EQ(task.stop(), 0);
    });
    EXPECT_THAT(printed, testing::StartsWith(passOf("Named", "0") + passOf("Named", "0")));
    EXPECT_FALSE(pthread_equal(ran, pthread_self()));
}

TEST_F(PeriodicTaskTest, CanBeEndedWhileItWaits) {
    PeriodicTask task("T", 3600 * second, [] { ADD_FAILURE() << "an hour went by"; });
    const std::string printed = printedBy([&] {
        ASSERT_EQ(task.start(), 0);
        EXPECT_EQ(task.stop(), 0);
    });
    // The task may be ended before it logs its first line.
    EXPECT_THAT(printed, testing::AnyOf("", "info Task [T] will execute in [3600s]\n"));
}

TEST_F(PeriodicTaskTest, CanBeEndedWhileItNeverWaits) {
    std::atomic<int> passes{0};
    PeriodicTask task("T", std::chrono::nanoseconds(0), [&passes] { ++passes; });
    printedBy([&] {
        ASSERT_EQ(task.start(), 0);
        EXPECT_TRUE(eventually([&] { return passes > 10; }));
        EXPECT_EQ(task.stop(), 0);
    });
}

TEST_F(PeriodicTaskTest, IsNotEndedInTheMiddleOfItsAction) {
    std::atomic<bool> inside{false};
    std::atomic<bool> finished{false};
    PeriodicTask task("T", std::chrono::nanoseconds(0), [&] {
        inside = true;
        pthread_testcancel();
        finished = true;
    });
    printedBy([&] {
        ASSERT_EQ(task.start(), 0);
        EXPECT_TRUE(eventually([&] { return inside.load(); }));
        EXPECT_EQ(task.stop(), 0);
    });
    EXPECT_TRUE(finished);
}

TEST_F(PeriodicTaskTest, ReportsThatItsThreadCannotBeCreated) {
    PeriodicTask task("T", std::chrono::nanoseconds(0), [] {});
    int error = 0;
    {
        const ThreadShortage shortage;
        error = task.start();
    }
    EXPECT_EQ(error, EAGAIN);
    EXPECT_EQ(task.stop(), ESRCH);
}

TEST_F(PeriodicTaskTest, ContinuesItsSleepAfterASignal) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    struct sigaction before {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &before), 0);
    const std::chrono::nanoseconds period = 300 * millisecond;
    std::atomic<int> passes{0};
    ThreadMark mark;
    CancellableThread thread;
    printedBy([&] {
        const auto begin = Clock::now();
        ASSERT_EQ(thread.start([&] {
            mark.set();
            runPeriodicTask("T", period, [&passes] { ++passes; });
        }),
                  0);
        for (int i = 0; i < 5; ++i) {
            EXPECT_TRUE(mark.eventuallyBlocks());
            pthread_kill(thread.id(), SIGUSR1);
        }
        EXPECT_TRUE(eventually([&passes] { return passes > 0; }));
        EXPECT_GE(Clock::now() - begin, std::chrono::milliseconds(300));
        thread.stop();
    });
    sigaction(SIGUSR1, &before, nullptr);
}

}  // namespace
}  // namespace vesk
