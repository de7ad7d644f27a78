// Warnings about keys that are valid but look like mistakes. Called by
// config/configuration_warnings.
#pragma once

#include <string>
#include <vector>

#include "config/configuration.h"

namespace vesk::controller {

/// Adds the warnings, one for each kind. None contains a key.
void warnOfKeys(const Configuration& configuration, std::vector<std::string>& warnings);

}  // namespace vesk::controller
