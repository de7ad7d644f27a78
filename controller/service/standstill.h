// Whether traffic has come to rest, as far as the forwarder's reports show. Called by
// service/supervisor while it drains.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "metrics/report.h"

namespace vesk::controller {

/// All datagram counters of a report, and the labels they belong to.
std::vector<std::uint64_t> trafficCounters(const Report& report);

class Standstill {
 public:
    using Clock = std::chrono::steady_clock;

    explicit Standstill(Clock::duration rest) : rest_(rest) {}

    /// Takes the counters as they were at a time; true once they have stood still for long enough.
    bool observe(std::vector<std::uint64_t> counters, Clock::time_point now);

    /// Whether there were any counters to see.
    bool observed() const { return counters_.has_value(); }

 private:
    Clock::duration rest_;
    std::optional<std::vector<std::uint64_t>> counters_;
    Clock::time_point since_;
};

}  // namespace vesk::controller
