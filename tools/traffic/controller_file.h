// Writes the flows of the traffic generator as a configuration file of vesk-controller. Called by
// main for --print-toml.
#pragma once

#include <ostream>
#include <vector>

#include "lib/flow_plan.h"
#include "traffic/options.h"

namespace vesk::bench {

/// Writes the whole file, keys included; flows are named flow1, flow2 and so on. `plans` are those
/// of the options.
void printControllerFile(std::ostream& out, const TrafficOptions& options,
                         const std::vector<FlowPlan>& plans);

}  // namespace vesk::bench
