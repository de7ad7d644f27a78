// Counts ephemeral ports: how many exist and how many are left. A flow's socket takes one when it
// first sends; if none is left, sending fails with EAGAIN. Called by kernel/kernel_reader; any
// thread.
#pragma once

#include <bitset>
#include <optional>
#include <string_view>

#include "kernel/kernel_figures.h"

namespace vesk::controller {

/// One bit for each port.
using PortSet = std::bitset<65536>;

/// net.ipv4.ip_local_port_range, "32768\t60999", both ends included; none if it is damaged.
std::optional<PortSet> parsePortRange(std::string_view text);

/// net.ipv4.ip_local_reserved_ports, "8080,9148-9150", or an empty line; none if it is damaged.
std::optional<PortSet> parseReservedPorts(std::string_view text);

/// How many ports of `range` without the `reserved` ones are `taken`, and how many are left. A port
/// counts once for both families and all addresses: a flow's socket is bound to no particular
/// address, so it cannot use a port on which there is any other socket.
Room portRoom(const PortSet& range, const PortSet& reserved, const PortSet& taken);

}  // namespace vesk::controller
