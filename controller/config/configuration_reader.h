// The configuration file as a whole. Called by main, and by service/supervisor for each reload.
#pragma once

#include <filesystem>
#include <optional>
#include <string_view>

#include "config/configuration.h"
#include "config/problem.h"

namespace vesk::controller {

/// Either the configuration, or all that keeps the file from being one.
struct ConfigurationReading {
    std::optional<Configuration> configuration;
    Problems problems;
};

struct ReadingRules {
    bool allowReadableKeys = false;
};

/// Reads the file and the key files that it names.
ConfigurationReading readConfiguration(const std::filesystem::path& file, ReadingRules rules);

/// The same for a text that was read already. Key files are looked for beside `file`;
/// `readableByOthers` refuses keys in the text itself, unless the rules allow them.
ConfigurationReading parseConfiguration(std::string_view text, const std::filesystem::path& file,
                                        bool readableByOthers, ReadingRules rules);

}  // namespace vesk::controller
