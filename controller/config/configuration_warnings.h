// What is allowed in a configuration file and still looks like a mistake: each kind in one sentence
// that names examples and says what comes of it. Called by main for --check.
#pragma once

#include <string>
#include <vector>

#include "config/configuration.h"

namespace vesk::controller {

/// No sentence holds a key; names that may be one are left out.
std::vector<std::string> configurationWarnings(const Configuration& configuration);

}  // namespace vesk::controller
