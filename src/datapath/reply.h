// A reply from upstream: checked, relabelled, signed and sent to the flow's last sender, or to the
// instance that forwarded that sender's datagram. Called by the receive workers.
#pragma once

#include <cstddef>

#include "datapath/wire/framing.h"
#include "net/endpoint.h"
#include "net/kept_endpoints.h"
#include "net/local_address.h"

namespace vesk {

struct ForwarderContext;

/// The sockets that replies leave from, as a worker keeps them.
struct WayOut {
    KeptSlot& downstream;
    KeptSlot& lateral;
};

/// A reply in the receive buffer of the endpoint that it arrived on.
struct Reply {
    VeskEndpointDescriptor& endpoint;
    std::size_t length;
    std::size_t headerLength;
    LocalAddress localDestination;

    DatagramBuffer buffer() const { return DatagramBuffer(endpoint.receiveBuffer); }
};

/// Returns the reply to the flow that it belongs to; whatever becomes of it is counted.
void returnReply(const Reply& reply, VeskEndpointDescriptor& flow, const WayOut& wayOut,
                 ForwarderContext& context);

}  // namespace vesk
