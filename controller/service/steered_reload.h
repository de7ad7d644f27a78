// What a reload leaves unchanged because the steering depends on it. Called by service/supervisor.
#pragma once

#include <string>
#include <vector>

#include "config/configuration.h"

namespace vesk::controller {

/// If one of the two is steered, keeps in `wanted` what the rules, the public port and the number
/// of the instances depend on. Returns the keys of the file whose new values apply at the next
/// start of the controller.
std::vector<std::string> keepSteering(const Configuration& running, Configuration& wanted);

}  // namespace vesk::controller
