// What a configuration amounts to: the forwarder's arguments and environment, and the commands that
// follow. Called by service/supervisor for each new child, and by main for --check.
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

/// The address that such a command names; none where it names none.
std::optional<HostPort> addressOf(const Command& start);
Command stopCommand();

/// Leaves the address that the forwarder listens on, if any, and listens on this one.
std::vector<Command> listenCommands(const HostPort& listen);

Command statsCommand();

/// All attributes of the flow that are not the forwarder's defaults.
Command setCommand(const Flow& flow);
Command delCommand(const Flow& flow);

Command lateralPeerCommand(std::uint32_t index, const std::string& address);

/// All peers, and the start of the stream.
std::vector<Command> lateralCommands(const Lateral& lateral);

/// Everything that a new child has to be told. Flows come before the listeners: no datagram meets a
/// port whose flows are not declared yet.
std::vector<Command> allCommands(const Configuration& configuration);

}  // namespace vesk::controller
