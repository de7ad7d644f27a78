// What prevents the kernel from steering the public port's datagrams to the instances, and the
// remedies. Called by main for --check, and by service/supervisor when the rules are refused.
#pragma once

#include <string>
#include <vector>

#include "config/configuration.h"
#include "service/host_limits.h"
#include "steering/packet_filter.h"

namespace vesk::controller {

/// "cannot steer port 4500 to the instances: ", the reason and a remedy.
std::string cannotSteer(std::uint16_t publicPort, const FilterAnswer& refusal);

/// Ports that the kernel may give to other sockets, whose datagrams the rules would then rewrite.
/// `reserved` is net.ipv4.ip_local_reserved_ports.
std::vector<std::string> instancePortWarnings(const InstancePorts& ports, const PortRange& range,
                                              const std::string& reserved);

/// All warnings for this host; none if the configuration is not steered. Lets the kernel check the
/// rules.
std::vector<std::string> steeringWarnings(const Configuration& configuration);

}  // namespace vesk::controller
