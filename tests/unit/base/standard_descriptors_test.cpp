#include "base/standard_descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <functional>

#include "support/child_process.h"
#include "support/descriptors.h"

namespace vesk {
namespace {

constexpr std::array standardDescriptors{STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};

bool sameFile(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

struct stat fileOf(int fd) {
    struct stat file {};
    fstat(fd, &file);
    return file;
}

struct stat nullDevice() {
    struct stat file {};
    stat("/dev/null", &file);
    return file;
}

bool contains(unsigned bits, int fd) {
    return ((bits >> static_cast<unsigned>(fd)) & 1U) != 0;
}

/// Closes the descriptors named by the bits and occupies them.
void replaceStandardDescriptors(unsigned closed, ClosedStream stream) {
    for (const int fd : standardDescriptors) {
        if (contains(closed, fd)) {
            close(fd);
        }
    }
    occupyStandardDescriptors(stream);
}

/// 0 if exactly the descriptors named by the bits are the null device and the others are as before;
/// else the number of one that is not, plus 1.
int onlyTheseAreNull(unsigned closed, const std::array<struct stat, 3>& before) {
    for (const int fd : standardDescriptors) {
        const struct stat& old = before.at(static_cast<std::size_t>(fd));
        if (!isOpen(fd) || !sameFile(fileOf(fd), contains(closed, fd) ? nullDevice() : old)) {
            return fd + 1;
        }
    }
    return 0;
}

TEST(StandardDescriptorsTest, OpensTheNullDeviceForEachClosedOne) {
    for (const ClosedStream stream : {ClosedStream::fails, ClosedStream::isEmpty}) {
        for (unsigned closed = 0; closed < 8; ++closed) {
            const auto body = [&] {
                const Pipe input;
                const Pipe errors;
                dup2(input.read.get(), STDIN_FILENO);
                dup2(errors.write.get(), STDERR_FILENO);
                const std::array<struct stat, 3> before{fileOf(STDIN_FILENO), fileOf(STDOUT_FILENO),
                                                        fileOf(STDERR_FILENO)};
                const std::size_t open = countOpenDescriptors();
                replaceStandardDescriptors(closed, stream);
                return countOpenDescriptors() == open ? onlyTheseAreNull(closed, before) : 9;
            };
            EXPECT_EQ(runInChild(body).exitCode, 0) << closed;
        }
    }
}

/// The result of `check` in a child that had no standard descriptors.
int withoutStandardDescriptors(ClosedStream stream, const std::function<bool()>& check) {
    const auto body = [&] {
        replaceStandardDescriptors(7, stream);
        return check() ? 0 : 1;
    };
    return runInChild(body).exitCode;
}

TEST(StandardDescriptorsTest, EachUseOfAClosedStreamFails) {
    const auto check = [] {
        char byte = 'x';
        const auto refused = [](ssize_t result) { return result == -1 && errno == EBADF; };
        return refused(read(STDIN_FILENO, &byte, 1)) && refused(write(STDOUT_FILENO, &byte, 1)) &&
               refused(write(STDERR_FILENO, &byte, 1));
    };
    EXPECT_EQ(withoutStandardDescriptors(ClosedStream::fails, check), 0);
}

TEST(StandardDescriptorsTest, AClosedStreamIsEmpty) {
    const auto check = [] {
        char byte = 'x';
        return read(STDIN_FILENO, &byte, 1) == 0 && write(STDOUT_FILENO, &byte, 1) == 1 &&
               write(STDERR_FILENO, &byte, 1) == 1;
    };
    EXPECT_EQ(withoutStandardDescriptors(ClosedStream::isEmpty, check), 0);
}

TEST(StandardDescriptorsTest, ProgramsStartedLaterInheritThem) {
    const auto check = [] {
        return std::ranges::all_of(standardDescriptors,
                                   [](int fd) { return fcntl(fd, F_GETFD) == 0; });
    };
    EXPECT_EQ(withoutStandardDescriptors(ClosedStream::isEmpty, check), 0);
}

TEST(StandardDescriptorsTest, LeavesOneClosedIfTheNullDeviceCannotBeOpened) {
    const auto body = [] {
        const rlimit none{0, 0};
        setrlimit(RLIMIT_NOFILE, &none);
        replaceStandardDescriptors(1U << STDIN_FILENO, ClosedStream::isEmpty);
        return isOpen(STDIN_FILENO) || !isOpen(STDOUT_FILENO) ? 1 : 0;
    };
    EXPECT_EQ(runInChild(body).exitCode, 0);
}

}  // namespace
}  // namespace vesk
