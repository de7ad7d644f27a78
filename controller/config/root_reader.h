// Reads the root of the configuration file except for the flows. Called by
// config/configuration_reader and config/fragments/fragment_reader.
#pragma once

#include <filesystem>

#include "config/configuration.h"
#include "config/table_reader.h"

namespace vesk::controller {

/// Reads all tables other than the flows. Relative paths are in `folder`.
void readSettings(TableReader& root, const std::filesystem::path& folder,
                  Configuration& configuration);

}  // namespace vesk::controller
