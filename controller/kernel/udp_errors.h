// Reads the host's UDP buffer errors from /proc/PID/net/snmp for IPv4 and /proc/PID/net/snmp6 for
// IPv6. Called by kernel/kernel_reader; any thread.
#pragma once

#include <optional>
#include <string_view>

#include "kernel/kernel_figures.h"

namespace vesk::controller {

/// Parses the two lines that begin with "Udp:", the names and the values; none if they are damaged
/// or a name is missing.
std::optional<BufferErrors> parseSnmp(std::string_view text);

/// Parses the lines "Udp6RcvbufErrors N" and "Udp6SndbufErrors N"; none if one is missing.
std::optional<BufferErrors> parseSnmp6(std::string_view text);

}  // namespace vesk::controller
