#include "config/protected_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <utility>

#include "base/unique_fd.h"
#include "log/error_text.h"

namespace vesk::controller {

namespace {

FileText refuse(std::string problem, bool found = true) {
    return {"", false, std::move(problem), found};
}

FileText tooLarge(std::size_t limit) {
    return refuse("is larger than " + std::to_string(limit) + " bytes");
}

}  // namespace

FileText readProtectedFile(const std::filesystem::path& path, std::size_t limit) {
    // Without O_NONBLOCK, opening a named pipe would wait for its writer.
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    if (!file) {
        return refuse("cannot be read: " + errorText(errno), false);
    }
    struct stat status {};
    if (fstat(file.get(), &status) != 0) {
        return refuse("cannot be read: " + errorText(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        return refuse("is not a regular file");
    }
    if (static_cast<std::uintmax_t>(status.st_size) > limit) {
        return tooLarge(limit);
    }
    FileText result;
    result.found = true;
    result.readableByOthers = (status.st_mode & (S_IRGRP | S_IROTH)) != 0;
    std::array<char, 16384> piece{};
    while (result.text.size() <= limit) {
        const ssize_t got = read(file.get(), piece.data(), piece.size());
        if (got == 0) {
            return result;
        }
        if (got < 0 && errno != EINTR) {
            return refuse("cannot be read: " + errorText(errno));
        }
        result.text.append(piece.data(), got < 0 ? 0 : static_cast<std::size_t>(got));
    }
    return tooLarge(limit);
}

}  // namespace vesk::controller
