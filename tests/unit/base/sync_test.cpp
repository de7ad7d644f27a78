#include "base/sync.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "base/thread_control.h"
#include "support/thread_state.h"

namespace vesk {
namespace {

TEST(MutexTest, AdmitsOneThreadAtATime) {
    constexpr int each = 20000;
    Mutex mutex;
    int count = 0;
    const auto countUp = [&] {
        for (int i = 0; i < each; ++i) {
            const MutexLock lock(mutex);
            ++count;
        }
    };
    std::thread other(countUp);
    countUp();
    other.join();
    EXPECT_EQ(count, 2 * each);
}

TEST(RwLockTest, AdmitsSeveralReadersAtOnce) {
    RwLock lock;
    const ReadLock mine(lock);
    std::thread other([&lock] { const ReadLock theirs(lock); });
    other.join();
}

TEST(RwLockTest, AdmitsAWriterAlone) {
    RwLock lock;
    int value = 0;
    ThreadMark reader;
    std::thread other;
    {
        const WriteLock mine(lock);
        other = std::thread([&] {
            reader.set();
            const ReadLock theirs(lock);
            EXPECT_EQ(value, 1);
        });
        EXPECT_TRUE(reader.eventuallyBlocks());
        value = 1;
    }
    other.join();
}

TEST(RwLockTest, AdmitsAWaitingWriterBeforeNewReaders) {
    RwLock lock;
    Mutex orderLock;
    std::string order;
    const auto note = [&](char who) {
        const MutexLock guard(orderLock);
        order += who;
    };
    ThreadMark writerMark;
    ThreadMark readerMark;
    std::thread writer;
    std::thread reader;
    {
        const ReadLock mine(lock);
        writer = std::thread([&] {
            writerMark.set();
            const WriteLock theirs(lock);
            note('w');
        });
        ASSERT_TRUE(writerMark.eventuallyBlocks());
        reader = std::thread([&] {
            readerMark.set();
            const ReadLock theirs(lock);
            note('r');
        });
        // If the reader got the lock at once, it would end here instead of blocking.
        ASSERT_TRUE(readerMark.eventuallyBlocks());
    }
    writer.join();
    reader.join();
    EXPECT_EQ(order, "wr");
}

TEST(WakeUpTest, WakesAWaitingThread) {
    WakeUp wakeUp;
    ThreadMark waiting;
    std::thread waiter([&] {
        waiting.set();
        wakeUp.wait();
    });
    ASSERT_TRUE(waiting.eventuallyBlocks());
    wakeUp.post();
    waiter.join();
}

TEST(WakeUpTest, KeepsAPostUntilAThreadWaits) {
    WakeUp wakeUp;
    wakeUp.post();
    wakeUp.wait();
}

TEST(WakeUpTest, CanBeCancelledWhileWaiting) {
    WakeUp wakeUp;
    ThreadMark waiting;
    CancellableThread waiter;
    ASSERT_EQ(waiter.start([&] {
        waiting.set();
        const CancellationScope cancellable;
        wakeUp.wait();
    }),
              0);
    ASSERT_TRUE(waiting.eventuallyBlocks());
    EXPECT_EQ(waiter.stop(), 0);
}

}  // namespace
}  // namespace vesk
