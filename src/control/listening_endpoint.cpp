#include "control/listening_endpoint.h"

#include <sched.h>

#include "app/forwarder_context.h"
#include "net/endpoint_manager.h"

namespace vesk {

void closeListeningEndpoint(EndpointPtr endpoint, ForwarderContext& context) {
    if (!endpoint) {
        return;
    }
    while (endpoint.use_count() > 1) {
        // Held for the length of one send that does not wait.
        sched_yield();
    }
    // The deleter closes one descriptor under two names; nobody may be given the number in between.
    context.endpointManager->withoutCreation([&endpoint] { endpoint.reset(); });
}

}  // namespace vesk
