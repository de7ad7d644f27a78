// Where the forwarder's program is. Called by service/supervisor before each start.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace vesk::controller {

/// The first of: what the command line says, what the file says, a "vesk" in `ownFolder` that may
/// be run, and "vesk" to be looked for by PATH.
std::string programPath(const std::optional<std::string>& fromCommandLine,
                        const std::optional<std::string>& fromFile,
                        const std::filesystem::path& ownFolder);

/// The folder that this process's own program is in.
std::filesystem::path ownFolder();

}  // namespace vesk::controller
