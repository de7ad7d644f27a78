// What an operator can do about an address that cannot be listened on. Called by
// service/supervisor with the error that the forwarder logged, or that a trial met.
#pragma once

#include <string>
#include <string_view>

#include "commands/command.h"

namespace vesk::controller {

/// What to do where the process has as many descriptors as it may.
inline constexpr std::string_view noDescriptorsLeft =
    "there are no descriptors left; raise the limit, LimitNOFILE of the unit";

/// "cannot listen on 192.0.2.1, port 4500: " and what to do. `start` is the command that names the
/// address. `reason` ends with the system's message for the error; any other text is repeated.
std::string cannotListen(const Command& start, std::string_view reason);

}  // namespace vesk::controller
