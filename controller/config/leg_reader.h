// Reads the parts that a flow and its `next` have in common: legs with their keys, labels and
// addresses. Called by config/flow_reader and config/next_reader.
#pragma once

#include <toml++/toml.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
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

/// Of a leg, seen from the forwarder.
enum class Direction { arriving, leaving };

/// Each returns nothing, or a leg without that part, if the key is missing or not usable; in the
/// latter case it adds a problem.
std::optional<std::uint32_t> readLabel(TableReader& table, std::string_view key);
std::optional<HostPort> readHostPort(TableReader& table, std::string_view key);
Leg readLeg(TableReader& parent, std::string_view key, Direction direction, KeySources& keys);
std::optional<AuxiliaryFlows> readAuxiliary(TableReader& parent);

/// Adds a problem if the source is of another address family than what it sends to: a socket bound
/// to an address of one family cannot send to the other.
void checkSource(TableReader& table, const Flow& flow);

}  // namespace vesk::controller
