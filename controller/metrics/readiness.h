// Whether the forwarder can be sent traffic, as the page /ready says. Called by MetricsServer.
#pragma once

#include <string_view>

#include "metrics/exposition.h"

namespace vesk::controller {

/// What keeps the service from being ready; empty where nothing does.
std::string_view notReadyBecause(const ControllerState& state);

}  // namespace vesk::controller
