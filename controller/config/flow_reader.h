// The [flows.NAME] tables. Called by config/configuration_reader.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>

#include "config/configuration.h"
#include "config/table_reader.h"

namespace vesk::controller {

/// Where keys come from, and whether the configuration file itself turned out to hold one.
struct KeySources {
    std::filesystem::path folder;  ///< that relative key files start from
    bool allowReadable = false;
    std::optional<std::uint32_t> firstInlineKey;  ///< its line
};

/// All flows by label. Labels and prefixes that occur twice are complained about.
std::map<std::uint32_t, Flow> readFlows(TableReader& flows, KeySources& keys);

}  // namespace vesk::controller
