// The lateral stream between instances. A datagram that another instance forwarded is passed on
// towards upstream. A reply that an owner returned is sent to the peer without its lateral header.
// Runs on the lateral receive thread.
#pragma once

#include <memory>

#include "net/endpoint.h"

namespace vesk {

struct ForwarderContext;

/// The body of the lateral receive thread: serves the endpoint until the thread is cancelled.
void lateralStreamRecv(const std::shared_ptr<ForwarderContext>& context,
                       const EndpointPtr& endpoint);

}  // namespace vesk
