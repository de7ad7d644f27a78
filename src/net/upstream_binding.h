// Binds a flow's upstream sockets to the address that the flow names. Called on the receive thread
// that makes the endpoint.
#pragma once

#include "net/endpoint.h"

namespace vesk {

class EndpointManager;

/// Binds the read socket, and with it the write socket, to `up_src_addrinfo`. Does nothing if the
/// flow has none. If an endpoint with the port has left the tables within the last second, it
/// retries for up to 50 ms. False, after logging, if the bind fails.
bool bindUpstreamSocket(VeskEndpointDescriptor& endpoint, const EndpointManager& manager);

}  // namespace vesk
