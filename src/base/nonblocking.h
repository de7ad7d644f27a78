// Descriptors that do not wait: upstream sockets and the poll loop's end of its channel. Any thread
// that owns the descriptor.
#pragma once

namespace vesk {

/// O_NONBLOCK. 0 or -errno.
int setNonBlocking(int fd);

}  // namespace vesk
