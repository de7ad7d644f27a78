// How a forwarder is brought to its end: it may drain, then its input is closed, and one that does
// not end by itself gets SIGTERM and at last SIGKILL. Says what to do and when; service/supervisor
// does it.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "service/standstill.h"

namespace vesk::controller {

class ForwarderEnding {
 public:
    using Clock = std::chrono::steady_clock;

    enum class Action { none, closeInput, terminate, kill };

    struct Step {
        Action action = Action::none;
        /// Why it is taken, for the log; empty where it is what was asked for.
        std::string_view reason;
    };

    /// Without traffic for so long, draining is over.
    static constexpr std::chrono::seconds restOfTraffic{1};
    /// From the end of its input to SIGTERM.
    static constexpr std::chrono::seconds endPatience{5};
    /// From SIGTERM to SIGKILL.
    static constexpr std::chrono::seconds signalPatience{2};

    bool begun() const { return phase_ != Phase::notBegun; }
    bool draining() const { return phase_ == Phase::draining; }

    /// Begins the end. Where it was begun before, the drain is over.
    Step ask(std::chrono::seconds drain, Clock::time_point now);

    /// Takes the traffic counters of a report: the drain is over when they have not moved for
    /// `restOfTraffic`.
    Step observe(std::vector<std::uint64_t> counters, Clock::time_point now);

    /// The next step, once `dueAt` has come.
    Step goOn(Clock::time_point now);

    std::optional<Clock::time_point> dueAt() const { return dueAt_; }

 private:
    /// In the order in which they are gone through.
    enum class Phase { notBegun, draining, closing, terminating, killing };

    Step closeInput(Clock::time_point now, std::string_view reason = {});

    Phase phase_ = Phase::notBegun;
    Standstill standstill_{restOfTraffic};
    std::optional<Clock::time_point> dueAt_;
};

}  // namespace vesk::controller
