#include "control/listening_endpoint.h"

#include "context/forwarder_context.h"
#include "net/endpoint_manager.h"

namespace vesk {

void closeListeningEndpoint(LentEndpoint endpoint, ForwarderContext& context) {
    EndpointPtr unused = endpoint.takeBack();
    if (unused) {
        // The deleter closes the same descriptor twice; no thread may get the number in between.
        context.endpointManager->withoutCreation([&unused] { unused.reset(); });
    }
}

}  // namespace vesk
