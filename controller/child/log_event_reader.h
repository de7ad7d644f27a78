// Finds the lines of the forwarder's log that the metrics count. Called by service/instance for
// each line.
#pragma once

#include <optional>

#include "child/log_line.h"
#include "metrics/log_event.h"

namespace vesk::controller {

/// The event that the line reports, if it is a counted one.
std::optional<LogEvent> eventOf(const LogLine& line);

}  // namespace vesk::controller
