#include "config/file_state.h"

#include <sys/stat.h>

#include <cerrno>
#include <ctime>

namespace vesk::controller {

namespace {

std::int64_t nanoseconds(const timespec& time) {
    constexpr std::int64_t perSecond = 1000000000;
    return time.tv_sec * perSecond + time.tv_nsec;
}

}  // namespace

FileState stateOf(const std::filesystem::path& path) {
    struct stat status {};
    FileState state;
    if (stat(path.c_str(), &status) != 0) {
        state.error = errno;
        return state;
    }
    state.device = status.st_dev;
    state.inode = status.st_ino;
    state.size = status.st_size;
    state.modified = nanoseconds(status.st_mtim);
    state.changed = nanoseconds(status.st_ctim);
    state.directory = S_ISDIR(status.st_mode);
    return state;
}

}  // namespace vesk::controller
