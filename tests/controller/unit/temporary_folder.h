// A folder that goes with the test that made it.
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

    /// Writes a file with these permissions, whatever the umask says.
    std::filesystem::path write(const std::string& name, std::string_view text,
                                mode_t mode = 0600) const;

 private:
    std::filesystem::path path_;
};

}  // namespace vesk::controller
