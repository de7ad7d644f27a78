// Letting go of the endpoints that "start" and "start_lateral" open. Called on the main thread.
#pragma once

#include "net/endpoint_slot.h"

namespace vesk {

struct ForwarderContext;

/// Releases an endpoint that no slot lends and no running thread serves, and returns once its
/// socket is closed: it waits for the workers that are still sending from it. Does nothing without
/// an endpoint.
void closeListeningEndpoint(LentEndpoint endpoint, ForwarderContext& context);

}  // namespace vesk
