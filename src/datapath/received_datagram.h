// A datagram on its way towards upstream that arrived on the downstream or the lateral endpoint.
// Used by the receive thread of that endpoint.
#pragma once

#include <cstddef>

#include "datapath/wire/framing.h"
#include "net/endpoint.h"
#include "net/local_address.h"

namespace vesk {

/// A datagram in a receive buffer, with its length in bytes, its addresses and the endpoint on
/// which it arrived.
struct ReceivedDatagram {
    VeskEndpointDescriptor& endpoint;
    DatagramBuffer buffer;
    std::size_t length;
    const SocketAddress& sender;
    const LocalAddress& localDestination;
    /// Empty for a datagram received directly from a peer.
    ReturnPath returnPath;
};

}  // namespace vesk
