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

/// Asks the kernel to merge datagrams of one sender that arrive together (UDP_GRO, udp(7)). Without
/// a result: a kernel that cannot do it passes on each datagram alone.
void requestMergedDatagrams(int fd);

/// Whether the kernel can cut one message into datagrams (UDP_SEGMENT, udp(7)). A kernel that
/// cannot would ignore the request and send the message as it is.
bool offersSegmentation(int fd);

/// Sets SO_REUSEPORT. 0, or -errno after logging.
int setReusePort(int fd);

}  // namespace vesk
