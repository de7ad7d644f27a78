#include "net/socket_options.h"

#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>

#include "log/error_text.h"
#include "log/log.h"
#include "log/printf_log.h"

namespace vesk {

namespace {

int setIntOption(int fd, int level, int option, int value) {
    return setsockopt(fd, level, option, &value, sizeof(value)) == 0 ? 0 : -errno;
}

constexpr const char* requestRoutine = "Vesk_requestLocalDestAddr";

int requestIpv4PacketInformation(int fd) {
    const int result = setIntOption(fd, IPPROTO_IP, IP_PKTINFO, 1);
    if (result != 0) {
        Warning("%s: IP_PKTINFO failed on socket %d, errno=%d\n", requestRoutine, fd, -result);
    }
    return result;
}

int requestIpv6PacketInformation(int fd) {
    const int result = setIntOption(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, 1);
    if (result != 0) {
        Warning("%s: IPV6_RECVPKTINFO failed on socket %d, errno=%d\n", requestRoutine, fd,
                -result);
    }
    return result;
}

}  // namespace

int Vesk_setSocketBuf(int fd, int optname, int size) {
    if (optname != SO_RCVBUF && optname != SO_SNDBUF) {
        logError("Vesk_setSocketBuf: bad SO_xxxBUF value ", optname);
        return -1;
    }
    const char* const name = optname == SO_RCVBUF ? "SO_RCVBUF" : "SO_SNDBUF";
    const int setResult = setIntOption(fd, SOL_SOCKET, optname, size);
    if (setResult != 0) {
        // Kept: this line is written whatever the log level is, and without a level name.
        writeToStandardOutput(std::string("set ") + name + " failed with error " +
                              std::to_string(-setResult) + "\n");
        return setResult;
    }
    int granted = 0;
    socklen_t length = sizeof(granted);
    if (getsockopt(fd, SOL_SOCKET, optname, &granted, &length) != 0) {
        const int error = errno;
        // Kept: no separator between the option's name and the text.
        logError(name, "Failed getsockopt syscall: ", errorText(error));
        return -error;
    }
    if (granted == 2 * size) {
        return 0;
    }
    logWarn(name, " sized to ", granted, " wanted ", size);
    return -errno;
}

int Vesk_requestLocalDestAddr(int fd, int family) {
    int result = 0;
    switch (family) {
        case AF_INET:
            result = requestIpv4PacketInformation(fd);
            break;
        case AF_INET6:
            result = requestIpv6PacketInformation(fd);
            break;
        default:
            Warning("%s: unknown socket family %d\n", requestRoutine, family);
            return -EAFNOSUPPORT;
    }
    return result == 0 ? -EINVAL : result;
}

void requestMergedDatagrams(int fd) {
    static_cast<void>(setIntOption(fd, IPPROTO_UDP, UDP_GRO, 1));
}

bool offersSegmentation(int fd) {
    int size = 0;
    socklen_t length = sizeof(size);
    return getsockopt(fd, IPPROTO_UDP, UDP_SEGMENT, &size, &length) == 0;
}

int setReusePort(int fd) {
    const int result = setIntOption(fd, SOL_SOCKET, SO_REUSEPORT, 1);
    if (result != 0) {
        logError("Failed to set reuse port option on socket: ", errorText(-result));
    }
    return result;
}

}  // namespace vesk
