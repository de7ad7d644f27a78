#include "base/thread_control.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>

#include "support/descriptors.h"
#include "support/printed.h"
#include "support/thread_state.h"

namespace vesk {
namespace {

void waitForCancellation() {
    const CancellationScope cancellable;
    while (true) {
        pause();
    }
}

class CancellableThreadTest : public DescriptorCountingTest {
 protected:
    CancellableThread thread;
};

TEST_F(CancellableThreadTest, HasNoIdBeforeItIsStarted) {
    EXPECT_FALSE(thread.started());
    EXPECT_EQ(thread.id(), pthread_t{});
}

TEST_F(CancellableThreadTest, RunsItsBody) {
    std::atomic<pthread_t> ran{};
    ASSERT_EQ(thread.start([&ran] {
        ran = pthread_self();
        waitForCancellation();
    }),
              0);
    EXPECT_TRUE(thread.started());
    EXPECT_TRUE(eventually([&] { return ran == thread.id(); }));
    EXPECT_EQ(thread.stop(), 0);
}

TEST_F(CancellableThreadTest, EndsAThreadThatWaitsInsideAScope) {
    ThreadMark mark;
    ASSERT_EQ(thread.start([&mark] {
        mark.set();
        waitForCancellation();
    }),
              0);
    ASSERT_TRUE(mark.eventuallyBlocks());
    EXPECT_EQ(printedBy([this] { EXPECT_EQ(thread.stop(), 0); }), "");
    EXPECT_FALSE(thread.started());
    EXPECT_FALSE(thread.leftRunning());
    EXPECT_EQ(thread.id(), pthread_t{});
}

TEST_F(CancellableThreadTest, CannotBeCancelledOutsideAScope) {
    Pipe pipe;
    ThreadMark mark;
    std::atomic<bool> stopping{false};
    std::atomic<bool> finished{false};
    ASSERT_EQ(thread.start([&] {
        mark.set();
        char byte = 0;
        // A cancellation point: with cancellation enabled the thread would end here.
        EXPECT_EQ(read(pipe.read.get(), &byte, 1), 1);
        finished = true;
    }),
              0);
    ASSERT_TRUE(mark.eventuallyBlocks());
    ThreadMark stopper;
    std::thread stop([&] {
        stopper.set();
        stopping = true;
        thread.stop();
    });
    ASSERT_TRUE(eventually([&] { return stopping.load(); }));
    ASSERT_TRUE(stopper.eventuallyBlocks());
    EXPECT_FALSE(finished);
    EXPECT_EQ(write(pipe.write.get(), "x", 1), 1);
    stop.join();
    EXPECT_TRUE(finished);
}

TEST_F(CancellableThreadTest, RunsDestructorsOfACancelledBody) {
    ThreadMark mark;
    std::atomic<bool> destroyed{false};
    struct Witness {
        std::atomic<bool>& flag;
        ~Witness() { flag = true; }
    };
    ASSERT_EQ(thread.start([&] {
        const Witness witness{destroyed};
        mark.set();
        waitForCancellation();
    }),
              0);
    ASSERT_TRUE(mark.eventuallyBlocks());
    EXPECT_EQ(thread.stop(), 0);
    EXPECT_TRUE(destroyed);
}

TEST_F(CancellableThreadTest, EndsABusyThreadWhereItChecksForCancellation) {
    std::atomic<int> passes{0};
    ASSERT_EQ(thread.start([&passes] {
        while (true) {
            ++passes;
            endThreadIfCancelled();
        }
    }),
              0);
    EXPECT_TRUE(eventually([&] { return passes > 10; }));
    EXPECT_EQ(thread.stop(), 0);
}

TEST_F(CancellableThreadTest, StopWithoutAThreadFailsSilently) {
    EXPECT_EQ(printedBy([this] { EXPECT_EQ(thread.stop(), ESRCH); }), "");
}

TEST_F(CancellableThreadTest, SecondStopFailsSilently) {
    ASSERT_EQ(thread.start(waitForCancellation), 0);
    EXPECT_EQ(thread.stop(), 0);
    EXPECT_EQ(printedBy([this] { EXPECT_EQ(thread.stop(), ESRCH); }), "");
}

TEST_F(CancellableThreadTest, StopJoinsAThreadThatEndedByItselfSilently) {
    ThreadMark mark;
    ASSERT_EQ(thread.start([&mark] { mark.set(); }), 0);
    ASSERT_TRUE(mark.eventuallyEnds());
    // The result of pthread_cancel for a thread that has ended but was not joined differs
    // between versions of the C library.
    EXPECT_EQ(printedBy([this] {
                  const int result = thread.stop();
                  EXPECT_TRUE(result == 0 || result == ESRCH) << result;
              }),
              "");
    EXPECT_FALSE(thread.started());
}

TEST_F(CancellableThreadTest, ReleasesItsBodyWhenItIsStopped) {
    auto held = std::make_shared<int>(1);
    const std::weak_ptr<int> watched = held;
    ASSERT_EQ(thread.start([held] { waitForCancellation(); }), 0);
    held.reset();
    EXPECT_FALSE(watched.expired());
    EXPECT_EQ(thread.stop(), 0);
    EXPECT_TRUE(watched.expired());
}

TEST_F(CancellableThreadTest, StopsInItsDestructor) {
    const auto held = std::make_shared<int>(1);
    {
        CancellableThread scoped;
        ASSERT_EQ(scoped.start([held] { waitForCancellation(); }), 0);
    }
    EXPECT_EQ(held.use_count(), 1);
}

TEST_F(CancellableThreadTest, CanBeStartedAgain) {
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(thread.start(waitForCancellation), 0);
        EXPECT_EQ(thread.stop(), 0);
    }
}

TEST_F(CancellableThreadTest, ReleasesItsBodyWhenTheThreadCannotBeCreated) {
    const auto held = std::make_shared<int>(1);
    int error = 0;
    int errnoAfter = 0;
    {
        const ThreadShortage shortage;
        errno = 0;
        error = thread.start([held] { waitForCancellation(); });
        errnoAfter = errno;
    }
    EXPECT_EQ(error, EAGAIN);
    EXPECT_NE(errnoAfter, 0);
    EXPECT_FALSE(thread.started());
    EXPECT_EQ(thread.id(), pthread_t{});
    EXPECT_EQ(held.use_count(), 1);
    EXPECT_EQ(thread.stop(), ESRCH);
}

TEST(CancellationScopeTest, DisablesCancellationAtItsEnd) {
    CancellableThread thread;
    std::atomic<int> stateInside{-1};
    std::atomic<int> stateAfter{-1};
    ThreadMark mark;
    ASSERT_EQ(thread.start([&] {
        int state = -1;
        {
            const CancellationScope cancellable;
            pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
            stateInside = state;
        }
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
        stateAfter = state;
        mark.set();
    }),
              0);
    ASSERT_TRUE(mark.eventuallySet());
    thread.stop();
    EXPECT_EQ(stateInside, PTHREAD_CANCEL_ENABLE);
    EXPECT_EQ(stateAfter, PTHREAD_CANCEL_DISABLE);
}

}  // namespace
}  // namespace vesk
