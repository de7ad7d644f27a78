#include "base/nonblocking.h"

#include <fcntl.h>

#include <cerrno>

namespace vesk {

int setNonBlocking(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags == -1) {
        return -errno;
    }
    if ((flags & O_NONBLOCK) != 0) {
        return 0;
    }
    return fcntl(fd, F_SETFL, flags | O_NONBLOCK) == -1 ? -errno : 0;
}

}  // namespace vesk
