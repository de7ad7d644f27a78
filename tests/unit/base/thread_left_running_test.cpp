// Threads that cannot be stopped.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "base/thread_control.h"
#include "support/child_process.h"
#include "support/descriptors.h"
#include "support/thread_state.h"

namespace vesk {
namespace {

const std::string notCancelled =
    "error Failed pthread_cancel: error Resource temporarily unavailable\n";

/// A thread that reads from a pipe it owns and cannot be cancelled. To be made in a child process.
struct ThreadLeftRunning {
    struct Used {
        Pipe pipe;
        ThreadMark mark;
    };

    ThreadLeftRunning() : ThreadLeftRunning(std::make_shared<Used>()) {}

    explicit ThreadLeftRunning(std::shared_ptr<Used> used) : watched(used) {
        const Used& seen = *used;
        thread.emplace();
        EXPECT_EQ(thread->start([used = std::move(used)] {
            used->mark.set();
            const CancellationScope cancellable;
            char byte = 0;
            while (read(used->pipe.read.get(), &byte, 1) == 1) {
            }
        }),
                  0);
        EXPECT_TRUE(seen.mark.eventuallyBlocks());
        forbidCancelling();
    }

    std::optional<CancellableThread> thread;
    std::weak_ptr<Used> watched;
};

/// Checks, in a child process, a thread whose failed stop is reported once.
void checkThreadLeftRunning(const std::function<void(ThreadLeftRunning&)>& check) {
    const ChildResult child = checkInChild([&check] {
        ThreadLeftRunning left;
        check(left);
    });
    EXPECT_EQ(child.printed, notCancelled);
}

TEST(ThreadLeftRunningTest, IsReported) {
    checkThreadLeftRunning([](ThreadLeftRunning& left) {
        EXPECT_EQ(left.thread->stop(), EAGAIN);
        EXPECT_TRUE(left.thread->leftRunning());
        EXPECT_FALSE(left.thread->started());
        EXPECT_EQ(left.thread->id(), pthread_t{});
    });
}

TEST(ThreadLeftRunningTest, IsNotStoppedASecondTime) {
    checkThreadLeftRunning([](ThreadLeftRunning& left) {
        left.thread->stop();
        EXPECT_EQ(left.thread->stop(), ESRCH);
        EXPECT_TRUE(left.thread->leftRunning());
    });
}

TEST(ThreadLeftRunningTest, KeepsTheObjectsOfItsBodyAfterItsHandleIsDestroyed) {
    checkThreadLeftRunning([](ThreadLeftRunning& left) {
        left.thread.reset();
        EXPECT_FALSE(left.watched.expired());
    });
}

}  // namespace
}  // namespace vesk
