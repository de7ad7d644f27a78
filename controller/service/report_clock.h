// When the forwarder is asked for its next report: at an interval, with at most one request
// outstanding. Called by service/instance.
#pragma once

#include <chrono>
#include <optional>
#include <utility>

namespace vesk::controller {

class ReportClock {
 public:
    using Clock = std::chrono::steady_clock;

    /// The next report is due now, unless it has a time already.
    void start(Clock::time_point now) { dueAt_ = dueAt_.value_or(now); }

    /// No report is due until the clock is started again.
    void stop() { dueAt_.reset(); }

    /// For a new forwarder: no report is due or outstanding.
    void reset() { *this = {}; }

    bool due(Clock::time_point now) const { return dueAt_ && *dueAt_ <= now; }
    std::optional<Clock::time_point> dueAt() const { return dueAt_; }

    /// Sets the time of the next report. Returns whether to ask for one now, which is false while
    /// one is outstanding.
    bool ask(Clock::time_point now, std::chrono::milliseconds interval) {
        dueAt_ = now + interval;
        return !std::exchange(outstanding_, true);
    }

    /// The outstanding report has arrived, or will not arrive.
    void answered() { outstanding_ = false; }

 private:
    std::optional<Clock::time_point> dueAt_;
    bool outstanding_ = false;
};

}  // namespace vesk::controller
