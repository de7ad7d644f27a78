// One file of a folder of fragments as checked values. Made by fragment_reader, put together with
// the others by fragment_merge.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "config/configuration.h"
#include "config/file_state.h"
#include "config/flow_reader.h"
#include "config/problem.h"

namespace vesk::controller {

/// A flow, and the lines of its file that a problem may name. The `next` of a flow follows it.
struct FragmentFlow {
    std::string key;    ///< its name in the file; empty for a `next`
    std::string place;  ///< "flows.alice", without keys
    std::uint32_t line = 0;
    std::uint32_t labelLine = 0;
    std::uint32_t auxiliaryLine = 0;
    std::uint32_t sourceLine = 0;
    Flow flow;
};

/// A table other than the flows.
struct SettingsTable {
    std::string place;
    std::uint32_t line = 0;
};

struct Fragment {
    std::vector<SettingsTable> tables;
    bool hasDownstream = false;  ///< then the settings of the folder are expected here
    /// What the tables say; none without [downstream], or if they have a problem.
    std::optional<Configuration> settings;
    std::vector<FragmentFlow> flows;  ///< if they have no problem
    std::vector<KeyFile> keyFiles;
    std::map<std::string, FileState> keyFolders;  ///< the folders of `keyFiles`
    Problems problems;
};

}  // namespace vesk::controller
