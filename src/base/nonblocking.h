// Makes descriptors non-blocking: those of upstream sockets, and the poll loop's end of the message
// channel. Called on the thread that makes the descriptor.
#pragma once

namespace vesk {

/// Sets O_NONBLOCK. 0 or -errno.
int setNonBlocking(int fd);

}  // namespace vesk
