// Reads the ports of the instances of this host from [downstream], and checks that no flow is in
// their way. Called by config/settings_reader, config/configuration_reader and
// config/fragments/fragment_merge.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "config/configuration.h"
#include "config/table_reader.h"

namespace vesk::controller {

/// The keys instance_ports and lateral_port, if the public port is steered. The forwarder's
/// settings and the public address have been read into the configuration.
std::optional<InstancePorts> readInstancePorts(TableReader& downstream,
                                               const Configuration& configuration);

/// Which flows of a steered configuration send from which source.
class SourceUsers {
 public:
    /// Enters the flow at `place`. Returns what is wrong with its source: it is a port of the
    /// instances, or shared with a flow of another instance; empty if nothing is.
    std::string add(const Flow& flow, const std::string& place, const Configuration& settings);

 private:
    /// The flow that uses a source first.
    struct User {
        std::size_t instance = 0;
        std::string place;
    };

    std::string share(const HostPort& source, const User& user);

    std::map<std::pair<std::string, std::uint16_t>, User> users_;
};

/// Adds a problem for each flow whose source is a port of the instances, or is shared with a flow
/// of another instance. To be called when everything else has been read.
void checkSources(TableReader& flows, const Configuration& configuration);

}  // namespace vesk::controller
