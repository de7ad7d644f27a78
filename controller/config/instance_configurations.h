// Divides a configuration among the instances of this host: each gets one of its own, as if it were
// the only one. Called by service/supervisor for the start and each reload, and by main for
// --check.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "config/configuration.h"

namespace vesk::controller {

/// Whether the public port is not that of the forwarder: rules send its datagrams on.
bool isSteered(const Configuration& configuration);

/// A label shifted by this is its upper 16 bits, the prefix.
inline constexpr std::uint32_t prefixBits = 16;

/// The instance that gets the datagrams with these upper 16 bits of the label.
std::size_t instanceOf(const Configuration& configuration, std::uint32_t prefix);

/// The ports of the instances at the start: the first ones of downstream.instance_ports. The port
/// of a configuration that is not steered is the public one.
std::vector<std::uint16_t> firstPorts(const Configuration& configuration);

/// The configuration of each instance, which listens on its port of `ports`: the flows whose
/// datagrams it gets, and its part of the lateral stream. Without a [lateral] table of the file, an
/// instance has a loopback address for the stream that depends on its port, so that two instances
/// with the same index and different ports can run at the same time. A configuration that is not
/// steered is returned as it is, but no part has a stream without a peer: the forwarder would
/// refuse it, and it starts once the first name of a peer is resolved.
std::vector<Configuration> instanceConfigurations(const Configuration& configuration,
                                                  const std::vector<std::uint16_t>& ports);

}  // namespace vesk::controller
