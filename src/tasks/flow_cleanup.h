// The expiry of idle flows, run by the periodic task "FlowCleanUpTask" on its thread.
#pragma once

#include <functional>
#include <vector>

#include "net/endpoint.h"

namespace vesk {

class EndpointManager;

/// Which kinds of flows may expire.
struct CleanUpSwitches {
    bool main = true;
    bool aux = true;
};

/// Releases the endpoints that a pass took out of the tables.
using EndpointRelease = std::function<void(std::vector<EndpointPtr> expired)>;

/// One pass: endpoints without traffic since the last pass are logged, taken out of the tables and
/// passed to `release`; the others are marked idle. Does nothing if both switches are off.
void cleanUpFlows(EndpointManager& manager, CleanUpSwitches switches,
                  const EndpointRelease& release);

}  // namespace vesk
