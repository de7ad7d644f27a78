// A datagram that arrived on the downstream or the lateral endpoint, on its way towards upstream.
// Used by the receive thread of that endpoint.
#pragma once

#include <cstddef>

#include "net/endpoint.h"
#include "net/local_address.h"

namespace vesk {

/// A datagram in an endpoint's receive buffer, and what is known of it.
struct ReceivedDatagram {
    VeskEndpointDescriptor& endpoint;
    std::size_t length;
    const SocketAddress& sender;
    LocalAddress localDestination;
    /// Empty for a datagram straight from a peer.
    ReturnPath returnPath;
};

}  // namespace vesk
