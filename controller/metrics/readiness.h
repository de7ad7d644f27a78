// Decides what the page /ready answers: whether the forwarder can take traffic. Called by
// MetricsServer.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "metrics/child_state.h"

namespace vesk::controller {

/// The reason why a child is not ready; empty if it is ready. `strict`: it is not ready while it
/// refuses a flow of the file.
std::string_view notReadyBecause(const ChildState& state, bool strict);

/// The same for several instances: of the first one that is not ready, with its number.
std::string firstObstacle(const std::vector<ChildState>& instances, bool strict);

}  // namespace vesk::controller
