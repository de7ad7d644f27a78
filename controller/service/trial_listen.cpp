#include "service/trial_listen.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "base/unique_fd.h"

namespace vesk::controller {

namespace {

/// An IPv4 address is returned as an IPv4-mapped IPv6 address.
in6_addr bytesOf(const std::string& host) {
    in6_addr bytes{};
    if (inet_pton(AF_INET6, host.c_str(), &bytes) != 1) {
        inet_pton(AF_INET6, ("::ffff:" + host).c_str(), &bytes);
    }
    return bytes;
}

bool same(const in6_addr& one, const in6_addr& other) {
    return std::ranges::equal(one.s6_addr, other.s6_addr);
}

bool isEverywhere(const in6_addr& address) {
    return same(address, in6addr_any) || same(address, bytesOf("0.0.0.0"));
}

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

int tryToListen(const HostPort& address) {
    const int family = address.host.find(':') == std::string::npos ? AF_INET : AF_INET6;
    const UniqueFd trial(socket(family, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
    if (!trial || bindTo(trial.get(), address, family) != 0) {
        return -errno;
    }
    return 0;
}

bool mayCollide(const HostPort& one, const HostPort& other) {
    const in6_addr first = bytesOf(one.host);
    const in6_addr second = bytesOf(other.host);
    return one.port == other.port &&
           (same(first, second) || isEverywhere(first) || isEverywhere(second));
}

}  // namespace vesk::controller
