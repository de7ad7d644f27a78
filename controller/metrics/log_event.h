// Log lines of the forwarder that are counted because its report has no figure for them. Recognised
// by child/log_event_reader, counted by MetricsServer.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace vesk::controller {

enum class LogEvent { hmacFailure, endpointCreated, endpointDeletedByError };

/// The number of events of each kind.
using LogEventCounts = std::array<std::uint64_t, 3>;

inline constexpr std::size_t placeOf(LogEvent event) {
    return static_cast<std::size_t>(event);
}

}  // namespace vesk::controller
