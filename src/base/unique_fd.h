// Ownership of a file descriptor as a type: closed once, by whoever holds it last.
#pragma once

#include <unistd.h>

#include <utility>

namespace vesk {

/// Move-only owner of one descriptor, or of none (-1). Never converts to int silently.
class UniqueFd {
 public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    ~UniqueFd() { reset(); }

    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        reset(other.release());
        return *this;
    }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ != -1; }

    /// Gives the descriptor away without closing it.
    int release() noexcept { return std::exchange(fd_, -1); }

    /// Closes what is held and takes over `fd`.
    void reset(int fd = -1) noexcept {
        const int old = std::exchange(fd_, fd);
        if (old != -1 && old != fd) {
            close(old);
        }
    }

 private:
    int fd_ = -1;
};

}  // namespace vesk
