// Between instances: datagrams that another instance forwards join the way towards upstream,
// replies that an owner returns are unwrapped and sent to the peer.
#pragma once

#include <memory>

#include "net/endpoint.h"

namespace vesk {

struct ForwarderContext;

/// The lateral receive thread: serves the endpoint until it is cancelled.
void lateralStreamRecv(const std::shared_ptr<ForwarderContext>& context,
                       const EndpointPtr& endpoint);

}  // namespace vesk
