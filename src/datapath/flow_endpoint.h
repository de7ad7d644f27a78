// The endpoint that a datagram towards upstream leaves by: looked up, or made with its sockets and
// registered with the poll loop. Called by the downstream and the lateral receive thread.
#pragma once

#include <cstdint>

#include "net/endpoint.h"

namespace vesk {

struct ForwarderContext;

struct FlowEndpoint {
    EndpointPtr endpoint;
    /// Made for this very datagram.
    bool created = false;
};

/// The label's endpoint, ready for use; made, where there is none yet. Without one, which is
/// logged, the label is unknown or its sockets could not be set up.
FlowEndpoint findOrCreateFlowEndpoint(std::uint32_t label, ForwarderContext& context);

}  // namespace vesk
