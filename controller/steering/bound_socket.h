// A UDP socket bound to an address of the configuration. Called by steering/public_port and
// service/trial_listen, on the main thread.
#pragma once

#include "base/unique_fd.h"
#include "config/configuration.h"

namespace vesk::controller {

/// Binds a socket to the address as the forwarder does. 0 and the socket, or the negative error
/// number.
int bindSocket(const HostPort& address, UniqueFd& bound);

}  // namespace vesk::controller
