#include "temporary_folder.h"

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace vesk::controller {

TemporaryFolder::TemporaryFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "vesk-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no temporary folder");
    }
    path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::filesystem::path TemporaryFolder::write(const std::string& name, std::string_view text,
                                             mode_t mode) const {
    std::filesystem::path file = path_ / name;
    std::ofstream(file) << text;
    if (chmod(file.c_str(), mode) != 0) {
        throw std::runtime_error("no such permissions for " + file.string());
    }
    return file;
}

}  // namespace vesk::controller
