#include "tasks/flow_cleanup.h"

#include "net/endpoint_manager.h"

namespace vesk {

void cleanUpFlows(EndpointManager& manager, CleanUpSwitches switches) {
    if (switches.main || switches.aux) {
        manager.expireIdle(switches.main, switches.aux);
    }
}

}  // namespace vesk
