// The system calls of the datapath that are made for each datagram. The C library's versions are
// cancellation points and prepare for a cancellation at every call; these calls are made with
// cancellation disabled, so that work is wasted. Called by the receive threads and the workers.
#pragma once

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <span>

namespace vesk {

/// Makes a system call on a socket. -1 with errno if it fails. All arguments are passed as the
/// kernel takes them, in whole registers.
inline long callOnSocket(long number, int socket, const void* messages, std::size_t count,
                         int flags) {
    constexpr long noTimeout = 0;
    return syscall(number, long{socket}, messages, count, long{flags}, noTimeout);
}

/// recvmmsg(2), without a time-out. The number of messages, or -1 with errno.
inline int receiveMessages(int socket, std::span<mmsghdr> messages, int flags) {
    return static_cast<int>(
        callOnSocket(SYS_recvmmsg, socket, messages.data(), messages.size(), flags));
}

/// sendmmsg(2). The number of messages, or -1 with errno.
inline int sendMessages(int socket, std::span<mmsghdr> messages, int flags) {
    return static_cast<int>(
        callOnSocket(SYS_sendmmsg, socket, messages.data(), messages.size(), flags));
}

/// sendmsg(2). The number of bytes, or -1 with errno.
inline ssize_t sendOneMessage(int socket, const msghdr& message, int flags) {
    return syscall(SYS_sendmsg, long{socket}, &message, long{flags}, 0L, 0L);
}

}  // namespace vesk
