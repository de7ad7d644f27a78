// Reads the [flows.NAME] tables. Called by config/configuration_reader and
// config/fragments/fragment_reader.
#pragma once

#include <cstdint>
#include <map>

#include "config/configuration.h"
#include "config/leg_reader.h"
#include "config/table_reader.h"

namespace vesk::controller {

/// All flows by label, and with them the `next` of those that have one. A label or prefix that
/// occurs twice is reported as a problem.
std::map<std::uint32_t, Flow> readFlows(TableReader& flows, KeySources& keys);

/// Adds a problem if the configuration file, which others can read, contains a key that they may
/// not read.
void refuseReadableKey(const KeySources& keys, bool readableByOthers, Problems& problems);

}  // namespace vesk::controller
