// Returns a reply from upstream: it is checked, relabelled, signed and sent to the flow's last
// sender, or to the instance that forwarded that sender's datagram. Called by the receive workers.
#pragma once

#include <cstddef>

#include "datapath/wire/framing.h"
#include "net/endpoint.h"
#include "net/endpoint_cache.h"
#include "net/local_address.h"

namespace vesk {

struct ForwarderContext;

/// The endpoints from which a worker sends replies.
struct WayOut {
    CachedSlot& downstream;
    CachedSlot& lateral;
};

/// A reply in the receive buffer of the endpoint on which it arrived. Lengths are in bytes.
struct Reply {
    VeskEndpointDescriptor& endpoint;
    std::size_t length;
    std::size_t headerLength;
    LocalAddress localDestination;

    DatagramBuffer buffer() const { return DatagramBuffer(endpoint.receiveBuffer); }
};

/// Sends the reply to the last sender of `flow`. Each result is counted.
void returnReply(const Reply& reply, VeskEndpointDescriptor& flow, const WayOut& wayOut,
                 ForwarderContext& context);

}  // namespace vesk
