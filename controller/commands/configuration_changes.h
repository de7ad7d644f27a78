// Finds the commands that take a running forwarder from one configuration to another without
// touching anything that does not change. Called by service/deployment at a reload.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "commands/command.h"
#include "config/configuration.h"

namespace vesk::controller {

/// What the forwarder refused; a reload tries it again.
struct Refusals {
    std::set<std::uint32_t> flows;  ///< labels
    bool downstream = false;
    bool lateral = false;
};

struct ConfigurationChanges {
    std::vector<Command> commands;
    /// Keys of the file whose new values apply at the next start of the forwarder.
    std::vector<std::string> waiting;
    /// The forwarder's configuration once it has carried out the commands.
    Configuration after;
};

/// The part of the changes that concerns the lateral stream.
struct LateralChanges {
    std::vector<Command> commands;
    std::vector<std::string> waiting;
    std::optional<Lateral> after;
};

/// `refused`: the running stream could not be started.
LateralChanges lateralChangesBetween(const std::optional<Lateral>& running,
                                     const std::optional<Lateral>& wanted, bool refused);

/// `running` is what was sent to the forwarder; `refusals` are the parts of it that it refused.
ConfigurationChanges changesBetween(const Configuration& running, const Configuration& wanted,
                                    const Refusals& refusals);

}  // namespace vesk::controller
