#include "base/standard_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>

namespace vesk {

namespace {

int openMode(int fd, ClosedStream closed) {
    if (closed == ClosedStream::isEmpty) {
        return O_RDWR;
    }
    // The opposite of the direction in which this stream is used, so that each use fails.
    return fd == STDIN_FILENO ? O_WRONLY : O_RDONLY;
}

}  // namespace

void occupyStandardDescriptors(ClosedStream closed) {
    for (const int fd : std::array{STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) == -1) {
            // open returns the lowest free number, which is this one. The descriptor stays open
            // until the process ends.
            static_cast<void>(open("/dev/null", openMode(fd, closed)));
        }
    }
}

}  // namespace vesk
