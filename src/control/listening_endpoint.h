// Letting go of the endpoints that "start" and "start_lateral" open. Called on the main thread.
#pragma once

#include "net/endpoint.h"

namespace vesk {

struct ForwarderContext;

/// Releases an endpoint that no slot and no running thread holds any more, and returns once its
/// socket is closed: a worker may be sending from it yet. An empty reference is fine.
void closeListeningEndpoint(EndpointPtr endpoint, ForwarderContext& context);

}  // namespace vesk
