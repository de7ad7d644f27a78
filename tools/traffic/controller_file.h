// Writes the flows of the traffic generator as a configuration file of vesk-controller. Called by
// main for --print-toml.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "lib/flow_plan.h"
#include "lib/framing.h"

namespace vesk::bench {

/// Writes the whole file, keys included; flows are named flow1, flow2 and so on.
void printControllerFile(std::ostream& out, const FramingLayout& framing,
                         const std::vector<FlowPlan>& plans, const std::string& address,
                         std::uint16_t port);

}  // namespace vesk::bench
