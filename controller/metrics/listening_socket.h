// A TCP socket that listens on one address and port. Made by MetricsServer, for HttpServer to
// accept on. Any thread.
#pragma once

#include <cstdint>
#include <string>

#include "base/unique_fd.h"

namespace vesk::controller {

/// Listens on a numeric address, IPv4 or IPv6; "::" takes IPv4 clients too, whatever the host's
/// default is. Port 0 lets the kernel choose. Throws std::runtime_error with the reason where it
/// cannot listen.
UniqueFd listenOn(const std::string& address, std::uint16_t port);

/// The port of a socket that listens.
std::uint16_t portOf(const UniqueFd& listening);

}  // namespace vesk::controller
