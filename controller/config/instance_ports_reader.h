// Reads the ports of the instances of this host from [downstream], and checks that no flow is in
// their way. Called by config/settings_reader and config/configuration_reader.
#pragma once

#include <optional>

#include "config/configuration.h"
#include "config/table_reader.h"

namespace vesk::controller {

/// The keys instance_ports and lateral_port, if the public port is steered. The forwarder's
/// settings and the public address have been read into the configuration.
std::optional<InstancePorts> readInstancePorts(TableReader& downstream,
                                               const Configuration& configuration);

/// Adds a problem for each flow whose source is a port of the instances, or is shared with a flow
/// of another instance. To be called when everything else has been read.
void checkSources(TableReader& flows, const Configuration& configuration);

}  // namespace vesk::controller
