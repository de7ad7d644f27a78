// Finds the endpoint that sends a datagram upstream, or makes it with its sockets and registers it
// with the poll loop. Called on the downstream and the lateral receive thread.
#pragma once

#include <cstdint>

#include "net/endpoint.h"

namespace vesk {

struct ForwarderContext;

struct FlowEndpoint {
    EndpointPtr endpoint;
    /// Whether it was made by this call.
    bool created = false;
};

/// The label's endpoint, ready for use; made if there is none. Empty, after logging, if the label
/// is unknown or the sockets cannot be set up. Takes `endpointCreation` and the manager's lock.
FlowEndpoint findOrCreateFlowEndpoint(std::uint32_t label, ForwarderContext& context);

}  // namespace vesk
