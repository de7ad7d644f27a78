// The socket options that endpoints need. No locks; any thread that owns the descriptor.
#pragma once

namespace vesk {

/// Receive buffer asked for on every socket that is read, and send buffer of upstream sockets.
inline constexpr int receiveBufferSize = 524288;
inline constexpr int sendBufferSize = 262144;

/// Sets SO_RCVBUF or SO_SNDBUF to `size` bytes and checks what the kernel made of it (it grants
/// twice the request, see socket(7)). 0 or negative; callers go on either way.
int Vesk_setSocketBuf(int fd, int optname, int size);

/// Asks for the destination address of each datagram received (ip(7), ipv6(7)).
/// Kept: -EINVAL where it succeeded. No caller looks at the result, and none may take a failure
/// here for a reason to give the socket up.
int Vesk_requestLocalDestAddr(int fd, int family);

/// SO_REUSEPORT. 0 or -errno.
int setReusePort(int fd);

}  // namespace vesk
