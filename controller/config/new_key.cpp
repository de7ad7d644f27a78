#include "config/new_key.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

#include "base/unique_fd.h"
#include "config/key_mask.h"
#include "log/error_text.h"

namespace vesk::controller {

namespace {

constexpr std::size_t keyBytes = 32;
constexpr mode_t ownerOnly = S_IRUSR | S_IWUSR;

/// Whether all of it was written; sets errno if not.
bool writeAll(int fd, const std::string& text) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written >= 0 && static_cast<std::size_t>(written) < text.size()) {
        errno = ENOSPC;
        return false;
    }
    return written >= 0;
}

}  // namespace

std::string newKeyLine() {
    constexpr std::string_view lowerCaseDigits = "0123456789abcdef";
    std::array<unsigned char, keyBytes> bytes{};
    // getrandom(2) never returns fewer bytes for a request of this size.
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw std::system_error(errno, std::generic_category(), "no random bytes for a key");
    }
    std::string line;
    for (const unsigned char byte : bytes) {
        line += lowerCaseDigits[byte >> 4U];
        line += lowerCaseDigits[byte & 0xfU];
    }
    return line + "\n";
}

std::string writeNewKey(const std::filesystem::path& path) {
    const std::string name = shownName(path.string());
    const std::string line = newKeyLine();
    const UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, ownerOnly));
    if (!file) {
        return name + " cannot be created: " + errorText(errno);
    }
    // The umask may have cleared bits.
    if (fchmod(file.get(), ownerOnly) != 0 || !writeAll(file.get(), line) ||
        fsync(file.get()) != 0) {
        const int error = errno;
        unlink(path.c_str());
        return name + " cannot be written: " + errorText(error);
    }
    return "";
}

}  // namespace vesk::controller
