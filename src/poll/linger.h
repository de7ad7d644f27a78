// When a thread that has nothing left to do lets the others go first, once, before it waits. Used
// by the poll thread and by the workers, each with a gauge of its own.
//
// Under a load that leaves no pause, more work is mostly there by the thread's next turn, and
// neither waiting nor being woken has to be paid for. But where another process computes on the
// same processor, a yield gives a whole time slice away: milliseconds for a reply that comes
// meanwhile. So a thread yields only while the forwarder is saturated.
#pragma once

#include <chrono>

namespace vesk {

/// Times since some moment, in nanoseconds.
struct SpentTime {
    std::chrono::nanoseconds clock{0};
    /// Processor time of all threads of the process, and of the calling one.
    std::chrono::nanoseconds process{0};
    std::chrono::nanoseconds thread{0};
};

/// Whether the process kept a processor busy during the last window, and the thread had a part in
/// it. Below saturation a processor has idle time, and beside another process that computes it has
/// to be shared; a thread that does little serves a low rate, whatever other threads do elsewhere.
class SaturationGauge {
 public:
    /// Short enough to notice a change of the load soon, long enough that asking for processor
    /// time, a system call, costs next to nothing.
    static constexpr std::chrono::nanoseconds window = std::chrono::milliseconds(1);

    bool windowIsOver(std::chrono::nanoseconds clock) const;
    void endWindow(const SpentTime& now);
    bool saturated() const { return saturated_; }

 private:
    SpentTime start_;
    bool saturated_ = false;
};

/// Lets other threads run first, if the process is saturated.
class Lingerer {
 public:
    /// Whether it yielded.
    bool linger();

 private:
    SaturationGauge gauge_;
};

}  // namespace vesk
