// Files that may hold keys: what is in them, and whether more people than their owner can see it.
// Called by config/configuration_reader and config/key_reader.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

namespace vesk::controller {

struct FileText {
    std::string text;
    bool readableByOthers = false;  ///< by its group or by everybody
    std::string problem;            ///< why it could not be read; empty where it could
    bool found = false;             ///< whether there was something to open
};

/// The whole of a regular file of at most `limit` bytes. Permissions and content are those of one
/// open file, whatever happens to its name meanwhile.
FileText readProtectedFile(const std::filesystem::path& path, std::size_t limit);

}  // namespace vesk::controller
