// Sets the options that the sockets of endpoints need. Called on the thread that makes the
// endpoint. No locks.
#pragma once

namespace vesk {

/// Sizes in bytes: the receive buffer requested for each socket that is read, and the send buffer
/// requested for upstream sockets.
inline constexpr int receiveBufferSize = 524288;
inline constexpr int sendBufferSize = 262144;

/// Sets SO_RCVBUF or SO_SNDBUF to `size` bytes and checks the size granted; the kernel grants twice
/// the request, see socket(7). A failure, or another size than requested, is logged. Returns 0 or a
/// negative number, which callers ignore.
int Vesk_setSocketBuf(int fd, int optname, int size);

/// Requests the destination address of each datagram received (ip(7), ipv6(7)). Kept: -EINVAL on
/// success. Callers ignore the result: a socket without this option is still used.
int Vesk_requestLocalDestAddr(int fd, int family);

/// Sets SO_REUSEPORT. 0, or -errno after logging.
int setReusePort(int fd);

}  // namespace vesk
