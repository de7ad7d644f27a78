// Reads the tables of the configuration file other than the flows and the lateral stream. Each
// reader takes the file's root and returns defaults if its table is missing. Called by
// config/configuration_reader.
#pragma once

#include <filesystem>

#include "config/configuration.h"
#include "config/table_reader.h"

namespace vesk::controller {

/// A program with a slash is relative to `folder`; one without is searched for in PATH.
ForwarderSettings readForwarder(TableReader& root, const std::filesystem::path& folder);

/// Reads [downstream] into the configuration, whose forwarder settings have been read.
void readDownstream(TableReader& root, Configuration& configuration);
SupervisionSettings readSupervision(TableReader& root);
MetricsSettings readMetrics(TableReader& root);

}  // namespace vesk::controller
