// Reads files that may contain keys, and finds out whether users other than the owner can read
// them. Called by config/configuration_reader and config/key_reader.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

namespace vesk::controller {

struct FileText {
    std::string text;
    bool readableByOthers = false;  ///< by its group or by all users
    std::string problem;            ///< why it could not be read; empty on success
    bool found = false;             ///< whether the path could be opened
};

/// Reads the whole of a regular file of at most `limit` bytes. Permissions and content belong to
/// the same file, even if it is renamed or replaced meanwhile.
FileText readProtectedFile(const std::filesystem::path& path, std::size_t limit);

}  // namespace vesk::controller
