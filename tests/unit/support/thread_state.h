// Waits for other threads: for a condition, or for a thread to block or to end.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <functional>

namespace vesk {

/// Whether `condition` becomes true before a deadline that suits the slowest machine. For values
/// that change without a notification, such as counters.
bool eventually(const std::function<bool()>& condition);

/// The kernel's id of a thread. The thread stores it, and the test waits for it.
class ThreadMark {
 public:
    /// To be called by the thread itself.
    void set();
    /// Whether the marked thread sleeps in the kernel before the deadline.
    bool eventuallyBlocks() const;
    bool eventuallySet() const;
    /// Whether the marked thread ends before the deadline.
    bool eventuallyEnds() const;

 private:
    std::atomic<pid_t> thread_{0};
};

/// Whether all other threads of this process sleep in the kernel before the deadline.
bool othersEventuallyBlock();

/// From now on pthread_cancel fails with EAGAIN in this process for a thread that waits where it
/// may be cancelled, because the signal cannot be queued. Call it in a child process.
void forbidCancelling();

/// While it exists, no thread can be started: the default stack exceeds any address space.
class ThreadShortage {
 public:
    ThreadShortage();
    ~ThreadShortage();
    ThreadShortage(const ThreadShortage&) = delete;
    ThreadShortage& operator=(const ThreadShortage&) = delete;

 private:
    std::size_t stackSizeBefore_ = 0;
};

}  // namespace vesk
