// The counters of the steering rules, from the packet filter's listing. Called by
// service/supervisor for the metrics.
#pragma once

#include <cstdint>
#include <string_view>

namespace vesk::controller {

/// Numbers of packets since the table was created. A packet may be several merged datagrams.
struct SteeringCounters {
    std::uint64_t tooShort = 0;   ///< without a whole label; sent to instance 0
    std::uint64_t fragments = 0;  ///< first fragments of datagrams that arrived in fragments
    std::uint64_t unmatched = 0;  ///< whose instance is not in the table; sent to instance 0
    std::uint64_t direct = 0;     ///< addressed to an instance's own port; dropped
};

/// Reads the output of steeringCountersQuery(). A counter that is missing is 0.
SteeringCounters parseSteeringCounters(std::string_view listing);

}  // namespace vesk::controller
