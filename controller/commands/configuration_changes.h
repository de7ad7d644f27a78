// What leads a running forwarder from one configuration to another, with everything that does not
// change left alone. Called by service/supervisor at a reload.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "commands/command.h"
#include "config/configuration.h"

namespace vesk::controller {

/// What the forwarder did not take of the commands it was sent; a reload tries it again.
struct Refusals {
    std::set<std::uint32_t> flows;  ///< labels
    bool downstream = false;
    bool lateral = false;
};

struct ConfigurationChanges {
    std::vector<Command> commands;
    /// Keys of the file whose new values wait for the next start of the forwarder.
    std::vector<std::string> waiting;
    /// What the forwarder has once it has carried the commands out.
    Configuration after;
};

/// `running` is what the forwarder was told so far, less what `refusals` says.
ConfigurationChanges changesBetween(const Configuration& running, const Configuration& wanted,
                                    const Refusals& refusals);

}  // namespace vesk::controller
