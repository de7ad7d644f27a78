#include "tasks/flow_cleanup.h"

#include <unistd.h>

#include <ios>

#include "log/log.h"
#include "net/endpoint_manager.h"

namespace vesk {

namespace {

/// Letting an endpoint go gives the poll thread two sockets to close. Thousands at once would keep
/// it from its traffic for tens of milliseconds, so they go in portions with a pause between.
constexpr std::size_t portionSize = 64;
constexpr useconds_t pauseMicroseconds = 1000;

void reportExpired(const VeskEndpointDescriptor& endpoint) {
    logDebug("Expiring label 0x", std::hex, endpoint.label, "/", std::dec, endpoint.label,
             " of flow type [", endpoint.flow.isAuxFlow != 0 ? "aux" : "main",
             "]: closing upstream endpoint and cleaning up");
}

void releaseInPortions(std::vector<EndpointPtr> expired) {
    std::size_t released = 0;
    for (EndpointPtr& endpoint : expired) {
        endpoint.reset();
        if (++released % portionSize == 0) {
            usleep(pauseMicroseconds);
        }
    }
}

}  // namespace

void cleanUpFlows(EndpointManager& manager, CleanUpSwitches switches) {
    if (!switches.main && !switches.aux) {
        return;
    }
    // By now the tables' lock was given back: traffic waits neither for the log's reader nor for
    // the message channel.
    std::vector<EndpointPtr> expired = manager.expireIdle(switches.main, switches.aux);
    for (const EndpointPtr& endpoint : expired) {
        reportExpired(*endpoint);
    }
    releaseInPortions(std::move(expired));
}

}  // namespace vesk
