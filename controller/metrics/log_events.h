// What is counted of the forwarder's log, since its report has no figure for it. Told apart by
// child/log_events, counted by MetricsServer.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vesk::controller {

enum class LogEvent { hmacFailure, endpointCreated, endpointDeletedByError };

/// How often each of them has occurred.
using LogEventCounts = std::array<std::uint64_t, 3>;

inline constexpr std::size_t placeOf(LogEvent event) {
    return static_cast<std::size_t>(event);
}

}  // namespace vesk::controller
