// Decides whether a thread that has nothing left to do yields once before it waits. Used by the
// poll thread and by the workers, each with its own object.
//
// Under saturating load more work has usually arrived when the thread runs again, which saves the
// cost of a wait and a wake-up. But if another process computes on the same processor, a yield
// gives a whole time slice away and delays a reply by milliseconds. A thread therefore yields only
// while the forwarder is saturated.
#pragma once

#include <chrono>

namespace vesk {

/// Readings of three clocks; only their differences matter.
struct SpentTime {
    std::chrono::nanoseconds clock{0};
    /// Processor time of all threads of the process, and of the calling thread.
    std::chrono::nanoseconds process{0};
    std::chrono::nanoseconds thread{0};
};

/// Whether the process kept a processor busy during the last window, and the thread had a share in
/// that. If not, the processor was idle at times or shared with another process, or this thread
/// serves a low rate, whatever the other threads do.
class SaturationGauge {
 public:
    /// Short enough to notice a change of load soon, long enough that the system calls that read
    /// the processor times cost next to nothing.
    static constexpr std::chrono::nanoseconds window = std::chrono::milliseconds(1);

    /// Whether the current window has lasted long enough, given the monotonic clock.
    bool windowIsOver(std::chrono::nanoseconds clock) const;
    /// Judges the window that ends now, and starts the next one.
    void endWindow(const SpentTime& now);
    /// The judgement of the last window; false before the first one has ended.
    bool saturated() const { return saturated_; }

 private:
    SpentTime start_;
    bool saturated_ = false;
};

/// Yields to other threads if the process is saturated.
class Lingerer {
 public:
    /// Whether it yielded.
    bool linger();

 private:
    SaturationGauge gauge_;
};

}  // namespace vesk
