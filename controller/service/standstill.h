// Detects from the forwarder's reports that traffic has stopped. Called by
// service/graceful_shutdown and service/instance during a drain.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "metrics/report.h"

namespace vesk::controller {

/// All datagram counters of a report, with the labels of their flows.
std::vector<std::uint64_t> trafficCounters(const Report& report);

class Standstill {
 public:
    using Clock = std::chrono::steady_clock;

    explicit Standstill(Clock::duration rest) : rest_(rest) {}

    /// Takes the counters as of `now`; true once they have not changed for `rest`.
    bool observe(std::vector<std::uint64_t> counters, Clock::time_point now);

    /// Whether observe() was called at all.
    bool observed() const { return counters_.has_value(); }

 private:
    Clock::duration rest_;
    std::optional<std::vector<std::uint64_t>> counters_;
    Clock::time_point since_;
};

}  // namespace vesk::controller
