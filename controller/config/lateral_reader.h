// Reads the [lateral] table. Called by config/configuration_reader.
#pragma once

#include <optional>

#include "config/configuration.h"
#include "config/table_reader.h"

namespace vesk::controller {

/// The stream, if the file has the table. The forwarder's settings and [downstream] have been read
/// into the configuration.
std::optional<Lateral> readLateral(TableReader& root, const Configuration& configuration);

}  // namespace vesk::controller
