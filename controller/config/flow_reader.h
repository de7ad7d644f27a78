// Reads the [flows.NAME] tables. Called by config/configuration_reader.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>

#include "config/configuration.h"
#include "config/table_reader.h"

namespace vesk::controller {

/// How keys are read, and whether the configuration file itself contains one.
struct KeySources {
    std::filesystem::path folder;  ///< of relative key files
    bool allowReadable = false;
    std::optional<std::uint32_t> firstInlineKey;  ///< its line
};

/// All flows by label. A label or prefix that occurs twice is reported as a problem.
std::map<std::uint32_t, Flow> readFlows(TableReader& flows, KeySources& keys);

}  // namespace vesk::controller
