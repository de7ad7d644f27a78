#include "service/trial_listen.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <string>

#include "base/unique_fd.h"
#include "steering/bound_socket.h"

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

}  // namespace

int tryToListen(const HostPort& address) {
    UniqueFd trial;
    return bindSocket(address, trial);
}

bool mayCollide(const HostPort& one, const HostPort& other) {
    const in6_addr first = bytesOf(one.host);
    const in6_addr second = bytesOf(other.host);
    return one.port == other.port &&
           (same(first, second) || isEverywhere(first) || isEverywhere(second));
}

}  // namespace vesk::controller
