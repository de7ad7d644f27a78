// Opens a TCP socket that listens on one address and port. Called by MetricsServer and HttpServer.
// Any thread.
#pragma once

#include <cstdint>
#include <string>

#include "base/unique_fd.h"

namespace vesk::controller {

/// Listens on a numeric address, IPv4 or IPv6; "::" also accepts IPv4 clients, whatever the host's
/// default is. With port 0 the kernel chooses. Throws std::runtime_error with the reason if it
/// cannot listen.
UniqueFd listenOn(const std::string& address, std::uint16_t port);

/// The port of a listening socket.
std::uint16_t portOf(const UniqueFd& listening);

}  // namespace vesk::controller
