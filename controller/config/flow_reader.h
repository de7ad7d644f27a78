// Reads the [flows.NAME] tables. Called by config/configuration_reader and
// config/fragments/fragment_reader.
#pragma once

#include <toml++/toml.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "config/configuration.h"
#include "config/document.h"
#include "config/file_state.h"
#include "config/table_reader.h"

namespace vesk::controller {

/// A key file, and its state before it was read.
struct KeyFile {
    std::filesystem::path path;
    FileState state;
};

/// How keys are read, and where they were found.
struct KeySources {
    std::filesystem::path folder;  ///< of relative key files
    bool allowReadable = false;
    /// Values that are variables as a whole, which the file does not contain.
    std::set<const toml::node*> fromVariables;
    std::optional<std::uint32_t> firstInlineKey;  ///< its line in the configuration file
    std::vector<KeyFile> files;                   ///< all that are named
    std::map<std::string, FileState> folders;     ///< of `files`, before the first was read
};

/// For the keys of this file, before any was read.
KeySources keySourcesOf(const Document& document, const std::filesystem::path& file,
                        bool allowReadable);

/// All flows by label. A label or prefix that occurs twice is reported as a problem.
std::map<std::uint32_t, Flow> readFlows(TableReader& flows, KeySources& keys);

/// Adds a problem if the configuration file, which others can read, contains a key that they may
/// not read.
void refuseReadableKey(const KeySources& keys, bool readableByOthers, Problems& problems);

}  // namespace vesk::controller
