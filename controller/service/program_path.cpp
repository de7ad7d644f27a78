#include "service/program_path.h"

#include <unistd.h>

#include <system_error>

namespace vesk::controller {

std::string programPath(const std::optional<std::string>& fromCommandLine,
                        const std::optional<std::string>& fromFile,
                        const std::filesystem::path& ownFolder) {
    if (fromCommandLine) {
        return *fromCommandLine;
    }
    if (fromFile) {
        return *fromFile;
    }
    const std::filesystem::path neighbour = ownFolder / "vesk";
    return access(neighbour.c_str(), X_OK) == 0 ? neighbour.string() : "vesk";
}

std::filesystem::path ownFolder() {
    std::error_code unknown;
    return std::filesystem::read_symlink("/proc/self/exe", unknown).parent_path();
}

}  // namespace vesk::controller
