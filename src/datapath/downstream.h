// The way towards upstream: a peer's datagram is checked, relabelled, signed and sent from the
// flow's own socket, or handed to the instance that owns its label.
#pragma once

#include <memory>

#include "datapath/received_datagram.h"
#include "net/endpoint.h"
#include "net/local_address.h"

namespace vesk {

struct ForwarderContext;

/// The downstream receive thread: serves the endpoint until it is cancelled.
void downstreamEptRecv(const std::shared_ptr<ForwarderContext>& context,
                       const EndpointPtr& endpoint);

/// Sends the datagram on its way. Whatever becomes of it is counted or logged. Called by the
/// downstream receive thread and, for datagrams forwarded by another instance, by the lateral one.
void downstreamPacketReceived(const ReceivedDatagram& datagram, ForwarderContext& context);

}  // namespace vesk
