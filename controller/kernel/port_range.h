// How many ephemeral ports there are and how many are left. A flow's socket takes one when it sends
// first; when none is left, sending fails with EAGAIN. Called by kernel/kernel_reader; any thread.
#pragma once

#include <bitset>
#include <optional>
#include <string_view>

#include "kernel/kernel_figures.h"

namespace vesk::controller {

/// One bit for each port.
using PortSet = std::bitset<65536>;

/// net.ipv4.ip_local_port_range, "32768\t60999", both ends included; none where it is damaged.
std::optional<PortSet> parsePortRange(std::string_view text);

/// net.ipv4.ip_local_reserved_ports, "8080,9148-9150", or an empty line; none where it is damaged.
std::optional<PortSet> parseReservedPorts(std::string_view text);

/// The ports of `range` without the `reserved` ones: those that are `taken`, and the others. A
/// port counts once, for both families and all addresses: a flow's socket is bound to none of them
/// in particular, so one socket on a port keeps all others from it.
Room portRoom(const PortSet& range, const PortSet& reserved, const PortSet& taken);

}  // namespace vesk::controller
