// Whether an address can be listened on, found out by listening on it for a moment. Called by
// service/supervisor before the forwarder gives up the address that it has.
#pragma once

#include "config/configuration.h"

namespace vesk::controller {

/// Opens the address as the forwarder would, and closes it. 0, or the negative error number.
int tryToListen(const HostPort& address);

/// Whether one socket on each of the two could be in the other's way: the same port, and the same
/// address or all addresses of the host. Where IPv6 stands for IPv4 too it counts as such.
bool mayCollide(const HostPort& one, const HostPort& other);

}  // namespace vesk::controller
