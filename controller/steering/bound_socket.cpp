#include "steering/bound_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "config/numeric_address.h"

namespace vesk::controller {

namespace {

int bindTo(int socket, const HostPort& address, int family) {
    sockaddr_in6 six{};
    six.sin6_family = AF_INET6;
    six.sin6_port = htons(address.port);
    sockaddr_in four{};
    four.sin_family = AF_INET;
    four.sin_port = htons(address.port);
    if (family == AF_INET6) {
        inet_pton(AF_INET6, address.host.c_str(), &six.sin6_addr);
        return bind(socket, reinterpret_cast<const sockaddr*>(&six), sizeof six);
    }
    inet_pton(AF_INET, address.host.c_str(), &four.sin_addr);
    return bind(socket, reinterpret_cast<const sockaddr*>(&four), sizeof four);
}

}  // namespace

int bindSocket(const HostPort& address, UniqueFd& bound) {
    const int family = isIPv4(address.host) ? AF_INET : AF_INET6;
    UniqueFd opened(socket(family, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
    if (!opened || bindTo(opened.get(), address, family) != 0) {
        return -errno;
    }
    bound = std::move(opened);
    return 0;
}

}  // namespace vesk::controller
