// Binding a flow's upstream sockets to the address that the flow names. On the thread that makes
// the endpoint.
#pragma once

#include "net/endpoint.h"

namespace vesk {

class EndpointManager;

/// Binds the read socket, and with it the write socket, as `up_src_addrinfo` says; does nothing
/// without one. Waits a few milliseconds for the port where an endpoint that held it has just left
/// the tables and is being closed. False after logging.
bool bindUpstreamSocket(VeskEndpointDescriptor& endpoint, const EndpointManager& manager);

}  // namespace vesk
