// An owner of a file descriptor, which closes it exactly once. Any thread; an object is not shared.
#pragma once

#include <unistd.h>

#include <utility>

namespace vesk {

/// Move-only owner of one descriptor, or of none (-1). Not implicitly convertible to int.
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

    /// Returns the descriptor without closing it. The caller owns it then.
    int release() noexcept { return std::exchange(fd_, -1); }

    /// Closes the descriptor held and takes ownership of `fd`.
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
