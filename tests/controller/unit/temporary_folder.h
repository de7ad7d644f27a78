// A temporary folder, which its destructor removes. Used by the tests of this folder.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <string_view>

namespace vesk::controller {

class TemporaryFolder {
 public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }

    /// Writes a file with these permissions, independent of the umask.
    std::filesystem::path write(const std::string& name, std::string_view text,
                                mode_t mode = 0600) const;

 private:
    std::filesystem::path path_;
};

}  // namespace vesk::controller
