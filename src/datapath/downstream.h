// Forwards datagrams upstream: a peer's datagram is checked, relabelled, signed and sent from the
// flow's own socket, or handed to the instance that owns its label. Runs on the downstream and the
// lateral receive thread.
#pragma once

#include <memory>

#include "datapath/received_datagram.h"
#include "net/endpoint.h"
#include "net/local_address.h"

namespace vesk {

struct ForwarderContext;

/// The body of the downstream receive thread: serves the endpoint until the thread is cancelled.
void downstreamEptRecv(const std::shared_ptr<ForwarderContext>& context,
                       const EndpointPtr& endpoint);

/// Forwards the datagram. Each result is counted or logged. Called on the downstream receive
/// thread, and on the lateral one for datagrams that another instance forwarded.
void downstreamPacketReceived(const ReceivedDatagram& datagram, ForwarderContext& context);

}  // namespace vesk
