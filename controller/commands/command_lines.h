// Turns a configuration into the forwarder's arguments, environment and commands. Called by
// service/ for each new child, and by main for --check.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "commands/command.h"
#include "config/configuration.h"

namespace vesk::controller {

std::vector<std::string> programArguments(const ForwarderSettings& settings);

/// Variables to set for the forwarder, each as NAME=value.
std::vector<std::string> programEnvironment(const ForwarderSettings& settings);

Command logCommand(const std::string& level);
Command startCommand(const HostPort& listen);

/// The address in a start command; empty if the command has no address.
std::optional<HostPort> addressOf(const Command& start);
Command stopCommand();

/// Closes the address that the forwarder listens on, if any, and listens on this one.
std::vector<Command> listenCommands(const HostPort& listen);

Command statsCommand();

/// Sets all attributes of the flow that differ from the forwarder's defaults.
Command setCommand(const Flow& flow);
Command delCommand(const Flow& flow);

Command lateralPeerCommand(std::uint32_t index, const std::string& address);

/// Adds all peers and starts the stream.
std::vector<Command> lateralCommands(const Lateral& lateral);

/// All commands for a new child. Flows are declared before the listeners are started, so that no
/// datagram arrives for a flow that is not declared yet.
std::vector<Command> allCommands(const Configuration& configuration);

}  // namespace vesk::controller
