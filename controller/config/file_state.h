// By what a change of a file is noticed without reading it. Used by config/flow_reader for key
// files and by config/fragments; any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>

namespace vesk::controller {

/// Of the file that a path leads to, through symbolic links.
struct FileState {
    dev_t device = 0;
    ino_t inode = 0;
    std::int64_t size = 0;
    std::int64_t modified = 0;  ///< in nanoseconds since 1970
    std::int64_t changed = 0;   ///< the same, also of its owner and permissions
    bool directory = false;
    int error = 0;  ///< errno if there is no such file
    bool operator==(const FileState&) const = default;
};

FileState stateOf(const std::filesystem::path& path);

}  // namespace vesk::controller
