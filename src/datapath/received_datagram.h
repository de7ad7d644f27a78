// A datagram on its way towards upstream that arrived on the downstream or the lateral endpoint.
// Used by the receive thread of that endpoint.
#pragma once

#include <cstddef>

#include "net/endpoint.h"
#include "net/local_address.h"

namespace vesk {

/// A datagram in an endpoint's receive buffer, with its length in bytes and its addresses.
struct ReceivedDatagram {
    VeskEndpointDescriptor& endpoint;
    std::size_t length;
    const SocketAddress& sender;
    LocalAddress localDestination;
    /// Empty for a datagram received directly from a peer.
    ReturnPath returnPath;
};

}  // namespace vesk
