#include "tasks/flow_cleanup.h"

#include <ios>

#include "log/log.h"
#include "net/endpoint_manager.h"

namespace vesk {

void cleanUpFlows(EndpointManager& manager, CleanUpSwitches switches) {
    if (!switches.main && !switches.aux) {
        return;
    }
    for (const EndpointPtr& endpoint : manager.expireIdle(switches.main, switches.aux)) {
        // Said after the tables' lock was given back: traffic must not wait for the log's reader.
        logDebug("Expiring label 0x", std::hex, endpoint->label, "/", std::dec, endpoint->label,
                 " of flow type [", endpoint->flow.isAuxFlow != 0 ? "aux" : "main",
                 "]: closing upstream endpoint and cleaning up");
    }
}

}  // namespace vesk
