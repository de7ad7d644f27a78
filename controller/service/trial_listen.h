// Finds out whether the forwarder can listen on an address by binding a socket to it briefly.
// Called by service/instance before the forwarder closes its present address.
#pragma once

#include "config/configuration.h"

namespace vesk::controller {

/// Binds a socket to the address as the forwarder does, and closes it. 0, or the negative error
/// number.
int tryToListen(const HostPort& address);

/// Whether sockets on the two addresses could collide: they have the same port, and the same
/// address, or one is the wildcard address. An IPv4-mapped address counts as IPv4.
bool mayCollide(const HostPort& one, const HostPort& other);

}  // namespace vesk::controller
