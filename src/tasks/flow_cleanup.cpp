#include "tasks/flow_cleanup.h"

#include <ios>

#include "log/log.h"
#include "net/endpoint_manager.h"

namespace vesk {

namespace {

void reportExpired(const VeskEndpointDescriptor& endpoint) {
    logDebug("Expiring label 0x", std::hex, endpoint.label, "/", std::dec, endpoint.label,
             " of flow type [", endpoint.flow.isAuxFlow != 0 ? "aux" : "main",
             "]: closing upstream endpoint and cleaning up");
}

}  // namespace

void cleanUpFlows(EndpointManager& manager, CleanUpSwitches switches,
                  const EndpointRelease& release) {
    if (switches.main || switches.aux) {
        release(manager.expireIdle(switches.main, switches.aux, reportExpired));
    }
}

}  // namespace vesk
