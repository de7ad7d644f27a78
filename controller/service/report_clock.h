// When the forwarder is asked for its next report: at an interval, and for one at a time. Called by
// service/supervisor.
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

    /// For a new forwarder: none of its reports is due or outstanding.
    void reset() { *this = {}; }

    bool due(Clock::time_point now) const { return dueAt_ && *dueAt_ <= now; }
    std::optional<Clock::time_point> dueAt() const { return dueAt_; }

    /// Sets the time of the next report. Whether to ask for one now: not while one is outstanding.
    bool ask(Clock::time_point now, std::chrono::milliseconds interval) {
        dueAt_ = now + interval;
        return !std::exchange(outstanding_, true);
    }

    /// The report asked for has come, or never will.
    void answered() { outstanding_ = false; }

 private:
    std::optional<Clock::time_point> dueAt_;
    bool outstanding_ = false;
};

}  // namespace vesk::controller
