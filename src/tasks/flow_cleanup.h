// The expiry of idle flows, run by the periodic task "FlowCleanUpTask" on its thread.
#pragma once

#include <memory>

namespace vesk {

class EndpointManager;

/// Which kinds of flows may expire.
struct CleanUpSwitches {
    bool main = true;
    bool aux = true;
};

/// One pass: endpoints without traffic since the pass before are removed, all others marked. With
/// both switches off it does nothing.
void cleanUpFlows(EndpointManager& manager, CleanUpSwitches switches);

}  // namespace vesk
