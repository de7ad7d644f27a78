// Finds the forwarder's program. Called by service/instance before each start.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace vesk::controller {

/// The path from the command line, else the path from the file, else an executable "vesk" in
/// `ownFolder`, else "vesk", which is searched for in PATH.
std::string programPath(const std::optional<std::string>& fromCommandLine,
                        const std::optional<std::string>& fromFile,
                        const std::filesystem::path& ownFolder);

/// The folder of this process's own program.
std::filesystem::path ownFolder();

}  // namespace vesk::controller
