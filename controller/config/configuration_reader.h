// Reads the whole configuration file. Called by main, by service/supervisor for each reload.
#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

#include "config/configuration.h"
#include "config/problem.h"

namespace vesk::controller {

/// Either the configuration, or all problems of the file.
struct ConfigurationReading {
    std::optional<Configuration> configuration;
    Problems problems;
};

struct ReadingRules {
    bool allowReadableKeys = false;
};

/// Reads the file and the key files that it names.
ConfigurationReading readConfiguration(const std::filesystem::path& file, ReadingRules rules);

/// The same for a text that was read before. Relative key files are in the folder of `file`. If
/// `readableByOthers`, keys in the text itself are refused unless the rules allow them.
ConfigurationReading parseConfiguration(std::string_view text, const std::filesystem::path& file,
                                        bool readableByOthers, ReadingRules rules);

}  // namespace vesk::controller
