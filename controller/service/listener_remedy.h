// What an operator can do if the forwarder cannot listen on an address. Called by
// service/instance with the error that the forwarder logged, or the error of a trial.
#pragma once

#include <string>
#include <string_view>

#include "commands/command.h"

namespace vesk::controller {

/// The remedy for EMFILE.
inline constexpr std::string_view noDescriptorsLeft =
    "no descriptors are left; raise LimitNOFILE of the unit";

/// "cannot listen on 192.0.2.1, port 4500: " and the remedy. `start` is the command that contains
/// the address. `reason` ends with the system's message for an error; if there is no remedy for
/// that error, `reason` is appended instead.
std::string cannotListen(const Command& start, std::string_view reason);

}  // namespace vesk::controller
