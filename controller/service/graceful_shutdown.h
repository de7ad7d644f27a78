// The steps that end a forwarder: it drains if configured, then its input is closed, and if it does
// not end by itself it gets SIGTERM and finally SIGKILL. Decides what to do and when;
// service/instance does it.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "service/standstill.h"

namespace vesk::controller {

class GracefulShutdown {
 public:
    using Clock = std::chrono::steady_clock;

    enum class Action { none, closeInput, terminate, kill };

    struct Step {
        Action action = Action::none;
        /// The reason for the log; empty for a step that was requested.
        std::string_view reason;
    };

    /// Draining is over after this time without traffic.
    static constexpr std::chrono::seconds restOfTraffic{1};
    /// From the end of its input to SIGTERM.
    static constexpr std::chrono::seconds endPatience{5};
    /// From SIGTERM to SIGKILL.
    static constexpr std::chrono::seconds signalPatience{2};

    bool begun() const { return phase_ != Phase::notBegun; }
    bool draining() const { return phase_ == Phase::draining; }

    /// Begins to end the forwarder. A second call ends the drain.
    Step ask(std::chrono::seconds drain, Clock::time_point now);

    /// Takes the traffic counters of a report. The drain is over when they have not changed for
    /// `restOfTraffic`.
    Step observe(std::vector<std::uint64_t> counters, Clock::time_point now);

    /// The next step if `dueAt` has passed.
    Step goOn(Clock::time_point now);

    std::optional<Clock::time_point> dueAt() const { return dueAt_; }

 private:
    /// In order of time.
    enum class Phase { notBegun, draining, closing, terminating, killing };

    Step closeInput(Clock::time_point now, std::string_view reason = {});

    Phase phase_ = Phase::notBegun;
    Standstill standstill_{restOfTraffic};
    std::optional<Clock::time_point> dueAt_;
};

}  // namespace vesk::controller
