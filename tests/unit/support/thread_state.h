// Waiting for what other threads do: for a condition, or for a thread to block.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <functional>

namespace vesk {

/// Whether `condition` comes true before a deadline that is generous for the slowest machine. For
/// what changes without telling anybody, such as a counter.
bool eventually(const std::function<bool()>& condition);

/// The kernel's id of a thread: written by the thread, waited for by the test.
class ThreadMark {
 public:
    /// To be called by the thread itself.
    void set();
    /// Whether the marked thread comes to sleep in the kernel.
    bool eventuallyBlocks() const;
    bool eventuallySet() const;
    /// Whether the marked thread comes to its end.
    bool eventuallyEnds() const;

 private:
    std::atomic<pid_t> thread_{0};
};

/// Whether all other threads of this process come to sleep in the kernel.
bool othersEventuallyBlock();

/// From here on pthread_cancel fails with EAGAIN in this process for a thread that waits where it
/// may be cancelled, since the signal for that thread cannot be queued. Call it in a child.
void forbidCancelling();

/// While it lives no thread can be started: the default stack is larger than any address space.
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
