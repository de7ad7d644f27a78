// Decides what the page /ready answers: whether the forwarder can take traffic. Called by
// MetricsServer.
#pragma once

#include <string_view>

#include "metrics/exposition.h"

namespace vesk::controller {

/// The reason why the service is not ready; empty if it is ready.
std::string_view notReadyBecause(const ControllerState& state);

}  // namespace vesk::controller
