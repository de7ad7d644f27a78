// Closes the endpoints that "start" and "start_lateral" open. Called on the main thread.
#pragma once

#include "net/endpoint_slot.h"

namespace vesk {

struct ForwarderContext;

/// Releases an endpoint that no slot lends and no running thread serves, and returns when its
/// socket is closed. It waits for workers that still send from the socket. Does nothing without an
/// endpoint.
void closeListeningEndpoint(LentEndpoint endpoint, ForwarderContext& context);

}  // namespace vesk
