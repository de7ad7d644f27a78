// Warnings about settings that are valid but look like mistakes: one sentence for each kind, with
// examples and the consequence. Called by main for --check.
#pragma once

#include <string>
#include <vector>

#include "config/configuration.h"

namespace vesk::controller {

/// No warning contains a key; names that may be keys are left out.
std::vector<std::string> configurationWarnings(const Configuration& configuration);

}  // namespace vesk::controller
